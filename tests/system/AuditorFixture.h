#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "qelCore/ItemStore.h"
#include "qelNet/Network.h"
#include "qelNet/RpcClient.h"
#include "support/Site.h"

namespace qel {

/// A connection of the test itself to the daemon, with a workstation's identity: for calls that no command makes.
class CallLink {
  public:
    CallLink(const test::Site& site, const test::Workstation& workstation) {
        const std::string& folder = workstation.folder;
        std::string error;
        const auto credentials = Credentials::load(
            {folder + "/workstation.crt", folder + "/workstation.key", folder + "/authority.crt", "", ""},
            error);
        if (!credentials)
            throw std::runtime_error(error);
        ConnectOptions options;
        options.connected = [this](Peer&) {
            const std::lock_guard lock(mutex_);
            connected_ = true;
            changed_.notify_all();
        };
        peer_ = network_.connect({site.address()}, credentials, options);
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(60), [this] { return connected_; }))
            throw std::runtime_error("no connection to the daemon");
        client_ = std::make_unique<RpcClient>(peer_.get(), "calls");
        if (!client_->open(60000, error))
            throw std::runtime_error(error);
    }
    ~CallLink() {
        client_.reset();
        network_.stop();
    }

    RpcReply call(const std::string& name, const Item& arguments,
                  const std::vector<std::string>& targets = {}) {
        RpcRequest request;
        request.name = name;
        request.arguments = arguments;
        request.targets = targets;
        return client_->call(request);
    }

  private:
    // Before the network, whose handlers touch them until it is gone.
    std::mutex mutex_;
    std::condition_variable changed_;
    bool connected_ = false;

    Network network_;
    std::shared_ptr<Peer> peer_;
    std::unique_ptr<RpcClient> client_;
};

/// A site with an auditor, anna, and logs filled before its daemon starts.
class AuditorTest : public ::testing::Test {
  protected:
    AuditorTest() : anna(site.enroll("anna", "desk-1")) {
        test::setKey(site.config(), "auditors", "[\"anna\", \"bert\"]");
    }

    /// Stores `count` events, one each microsecond from `start` on, in a central log.
    void fill(const char* log, long long start, int count, const std::string& parameter = "1.2.840") {
        std::string reason;
        const auto store = ItemStore::open(site.storeUrl(), {}, reason);
        ASSERT_TRUE(store) << reason;
        Item path;
        path.addString(log);
        Item value;
        value.addString("carol");
        value.addString("pc-7");
        value.addString("SeriesOpened");
        value.addString(parameter);
        constexpr int eventsPerCommit = 20000;
        for (int i = 0; i < count;) {
            WriteBatch batch(store.get());
            for (int end = std::min(count, i + eventsPerCommit); i < end; ++i) {
                Item inner;
                inner.addInteger(start + i);
                inner.addInteger(7);
                Item key(path);
                key.addItem(inner);
                store->store(key, value.bytes());
            }
            ASSERT_TRUE(batch.commit());
        }
    }

    std::string into(const std::string& name = "into") const { return site.folder() + "/" + name; }
    test::ProcessResult download(const std::string& folder, const std::vector<std::string>& more = {}) const {
        return site.audit(downloadArguments(folder, more));
    }
    std::vector<std::string> downloadArguments(const std::string& folder,
                                               const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments{"download", "--config", anna.config(), "--from", "1990",
                                           "--to",     "1999",     "--into",      folder};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    static std::vector<std::string> linesOf(const std::string& text) {
        std::istringstream in(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    static std::size_t entries(const std::string& folder) {
        std::error_code fault;
        std::size_t count = 0;
        for (std::filesystem::directory_iterator at(folder, fault), end; !fault && at != end;
             at.increment(fault))
            ++count;
        return count;
    }
    /// Folders of calls at the daemon.
    std::size_t callFolders() const {
        const std::size_t all = entries(site.siteFolder() + "/transfer");
        return all == 0 ? 0 : all - 1;
    }
    bool logs(const std::string& text) {
        return test::waitFor([&] { return site.daemonLog().find(text) != std::string::npos; });
    }
    /// The lines of the audit trail that tell of readings.
    std::vector<std::string> traces() const {
        std::vector<std::string> found;
        for (const std::string& line : site.exportedLines("audit"))
            if (line.find(";AuditLogUsed;") != std::string::npos &&
                line.find(";export;") == std::string::npos)
                found.push_back(line);
        return found;
    }

    // 1995-06-01T00:00:00Z: the logs of these tests lie far from the present, in which their own traces appear.
    static constexpr long long past = 801964800LL * 1000000;

    test::Site site;
    test::Workstation anna;
};

}  // namespace qel
