#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qelCore/logging/CaptureSink.h"
#include "qelNet/Network.h"
#include "support/EchoService.h"
#include "support/TestSite.h"

namespace qel::test {

/// A server and its clients in one process, over real sockets and TLS.
class NetworkTest : public testing::Test {
  protected:
    std::string listen(std::shared_ptr<Credentials> credentials = nullptr, NetworkLimits limits = {}) {
        const Listening listening =
            server_.listen("127.0.0.1:0", {&service_}, credentials ? credentials : site_.server(), limits);
        EXPECT_TRUE(listening) << listening.error;
        return listening.address;
    }

    /// A client whose query is made anew at each connection.
    struct Workstation {
        std::atomic<int> connects{0};
        std::atomic<int> losses{0};
        std::mutex mutex;  ///< of what the network's thread writes and the test reads: reason, gone, query
        std::string reason;
        bool gone = false;  ///< what connects from now on gets no query
        // Behind what its handlers touch: they may run until it is gone.
        std::shared_ptr<Peer> peer;
        std::unique_ptr<Client> client;
        std::unique_ptr<EchoQuery> query;

        std::string lastReason() {
            const std::lock_guard<std::mutex> lock(mutex);
            return reason;
        }
        /// What has come back on this connection.
        std::vector<long long> numbers() {
            const std::lock_guard<std::mutex> lock(mutex);
            return query ? query->numbers() : std::vector<long long>();
        }
        ~Workstation() {
            if (peer) {
                std::promise<void> ended;
                peer->getNetworkPeer()->post([&] {
                    const std::lock_guard<std::mutex> lock(mutex);
                    gone = true;
                    query.reset();
                    ended.set_value();
                });
                ended.get_future().wait();
            }
        }
        void send(long long number, std::size_t bytes = 0) {
            peer->getNetworkPeer()->post([this, number, bytes] {
                if (query)
                    query->sendPacket(makeEcho(number, bytes).get());
            });
        }
        bool waitFor(std::size_t count) {
            return eventually([&] { return numbers().size() >= count; });
        }
    };

    std::unique_ptr<Workstation> connect(const std::vector<std::string>& servers,
                                         std::shared_ptr<Credentials> credentials = nullptr,
                                         ConnectOptions options = {}, const char* serviceName = "echo",
                                         short sessionType = echoSession) {
        auto station = std::make_unique<Workstation>();
        Workstation* raw = station.get();
        options.backoffMilliseconds = 20;
        options.connected = [raw, serviceName, sessionType](Peer& peer) {
            const std::lock_guard<std::mutex> renewing(raw->mutex);
            if (raw->gone)
                return;
            raw->query.reset();
            raw->client = std::make_unique<Client>(&peer, serviceName);
            raw->query = std::make_unique<EchoQuery>(raw->client.get(), sessionType);
            raw->query->setClosedHandler([raw](const std::string& why) {
                const std::lock_guard<std::mutex> lock(raw->mutex);
                raw->reason = why;
            });
            ++raw->connects;
        };
        options.lost = [raw](Peer&, const std::string& why, bool) {
            const std::lock_guard<std::mutex> lock(raw->mutex);
            raw->reason = why;
            ++raw->losses;
        };
        station->peer = client_.connect(servers, credentials ? credentials : site_.workstation(), options);
        return station;
    }

    TestSite site_;
    EchoService service_;
    Network server_;
    Network client_;
    logging::CaptureSink log_;
};

}  // namespace qel::test
