#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "support/Site.h"

namespace qel {
namespace {

using test::Process;
using test::queued;
using test::Site;
using test::waitFor;
using test::Workstation;

/// The disk below the central store: a small file system in memory, full but for two megabytes, where this user may mount
/// one; else a bound on the size of the daemon's files.
class SmallDisk {
  public:
    explicit SmallDisk(std::string folder) : folder_(std::move(folder)) {
        mkdir(folder_.c_str(), 0770);
        mounted_ = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=16m") == 0;
        if (mounted_)
            fill();
    }
    ~SmallDisk() {
        if (mounted_)
            umount2(folder_.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    void bind(pid_t daemon) const {
        if (!mounted_)
            limit(daemon, 2U << 20);
    }
    void makeRoom(pid_t daemon) const {
        if (mounted_)
            unlink((folder_ + "/ballast").c_str());
        else
            limit(daemon, RLIM_INFINITY);
    }

  private:
    void fill() const {
        const int fd = open((folder_ + "/ballast").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);  // cppcheck-suppress resourceLeak ; nothing is open when this ends the function
        EXPECT_EQ(posix_fallocate(fd, 0, 14 << 20), 0);
        close(fd);
    }
    static void limit(pid_t daemon, rlim_t bytes) {
        const rlimit wanted{bytes, RLIM_INFINITY};
        EXPECT_EQ(prlimit(daemon, RLIMIT_FSIZE, &wanted, nullptr), 0);
    }

    std::string folder_;
    bool mounted_ = false;
};

}  // namespace

TEST(FullDiskSystemTest, DaemonStopsAcknowledgingLosesNothingAndGoesOnWhenSpaceReturns) {
    constexpr int events = 30000;
    Site site;
    const Workstation anna = site.enroll("anna", "pc-1");
    test::setKey(anna.config(), "stall_seconds", "1");
    test::setKey(anna.config(), "backoff_max_seconds", "1");
    const std::string file = site.folder() + "/events.jsonl";
    {
        std::ofstream out(file);
        for (int i = 0; i < events; ++i)
            out << "[\"SeriesOpened\",\"1.2.840.113619.2.55.3.604688119.971.1268071029.320\"," << i << "]\n";
    }
    ASSERT_EQ(site.audit({"record", "--config", anna.config(), "--log", "interaction", "--from", file}).code,
              0);

    const SmallDisk disk(site.storeUrl().substr(std::string("lmdb:").size()));
    site.startDaemon({"env", "--ignore-signal=XFSZ"});
    const pid_t daemon = site.daemon().pid();
    disk.bind(daemon);
    const std::unique_ptr<Process> agent = site.agent({"forward", "--config", anna.config()}, "agent");

    const auto isFull = [&] {
        return site.daemonLog().find("cannot write to the store") != std::string::npos;
    };
    ASSERT_TRUE(waitFor(isFull, std::chrono::seconds(60)));
    const long long left = queued(site, anna);
    EXPECT_GT(left, 0);

    // The same daemon, not started again.
    disk.makeRoom(daemon);
    EXPECT_TRUE(waitFor([&] { return queued(site, anna) == 0; }, std::chrono::seconds(120)));
    EXPECT_EQ(site.daemon().pid(), daemon);
    std::set<std::string> numbers;
    const std::vector<std::string> lines = site.exportedLines("interaction");
    for (const std::string& line : lines) {
        std::size_t at = 0;
        for (int field = 0; field < 5; ++field)
            at = line.find(';', at) + 1;
        numbers.insert(line.substr(at, line.find(';', at) - at));
    }
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(events));
    EXPECT_EQ(numbers.size(), static_cast<std::size_t>(events));
    EXPECT_EQ(site.stopDaemon(), 0);
}

}  // namespace qel
