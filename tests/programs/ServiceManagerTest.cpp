#include "common/ServiceManager.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "SiteFixture.h"

namespace qel::programs {
namespace {

/// The service manager's end: a socket that collects what a daemon tells of itself.
class NotifySocket {
  public:
    explicit NotifySocket(const std::string& path)
        : handle_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(handle_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~NotifySocket() {
        ::unsetenv("NOTIFY_SOCKET");
        ::close(handle_);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// Waits for a message with that line; those before it are kept in `heard`.
    bool hear(const std::string& line) {
        constexpr int patience = 60000;
        pollfd ready{handle_, POLLIN, 0};
        while (::poll(&ready, 1, patience) == 1) {
            char buffer[4096];
            const ssize_t size = ::recv(handle_, buffer, sizeof buffer, 0);
            heard.emplace_back(buffer, static_cast<std::size_t>(size > 0 ? size : 0));
            if (("\n" + heard.back() + "\n").find("\n" + line + "\n") != std::string::npos)
                return true;
        }
        return false;
    }

    std::vector<std::string> heard;

  private:
    int handle_;
};

class ServiceManagerTest : public SiteFixture {};

TEST_F(ServiceManagerTest, DaemonTellsThatItIsReadyAliveReloadedAndStopping) {
    NotifySocket manager(folder_ / "notify");
    ::setenv("WATCHDOG_USEC", "2000000", 1);
    serve();
    ::unsetenv("WATCHDOG_USEC");
    ASSERT_TRUE(manager.hear("READY=1"));
    // Idle all the while: what feeds the watchdog is the commit thread's turning, not traffic.
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(manager.hear("WATCHDOG=1"));
    daemon_->signal(SIGHUP);
    ASSERT_TRUE(daemon_->waitFor("reloaded certificates"));
    EXPECT_EQ(stop().code, 0);
    EXPECT_TRUE(manager.hear("STOPPING=1"));
}

TEST_F(ServiceManagerTest, WatchdogIsNotFedWhereNobodyAskedForIt) {
    NotifySocket manager(folder_ / "notify");
    serve();
    ASSERT_TRUE(manager.hear("READY=1"));
    EXPECT_EQ(stop().code, 0);
    ASSERT_TRUE(manager.hear("STOPPING=1"));
    for (const std::string& message : manager.heard)
        EXPECT_EQ(message.find("WATCHDOG"), std::string::npos) << message;
}

TEST_F(ServiceManagerTest, LinesForTheJournalBeginWithTheirLevel) {
    ::setenv("JOURNAL_STREAM", "8:1", 1);
    serve();
    ::unsetenv("JOURNAL_STREAM");
    const std::string text = daemon_->err();
    EXPECT_EQ(text.rfind("<6>", 0), 0u) << text;
    EXPECT_NE(text.find("listening on "), std::string::npos);
    stop();
}

}  // namespace
}  // namespace qel::programs
