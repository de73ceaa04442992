#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelNet/RpcService.h"
#include "rpc/OutgoingFiles.h"
#include "rpc/SessionLink.h"

namespace qel::rpc {

class RpcSession;

/// The file transfer of one call as the service sees it: reads ahead of the connection by one batch at most, and never
/// by more than the client has room for, so that a slow client costs memory for one batch. Any thread.
class ServerTransfer : public std::enable_shared_from_this<ServerTransfer> {
  public:
    struct Setup {
        std::shared_ptr<RpcService::Core> core;
        std::shared_ptr<SessionLink> link;
        long long call = 0;
        std::uint64_t window = 0;
        std::size_t chunkBytes = 0;
        /// Called once, from any thread, when the transfer has ended.
        std::function<void()> ended;
    };

    explicit ServerTransfer(Setup setup);

    /// Announces the files and starts; they must not change any more.
    void begin(std::unique_ptr<OutgoingFiles> files);
    /// Ends it, once: later calls do nothing.
    void end(RpcTransfer code, const std::string& status);
    bool hasEnded(int& code, std::string& status) const;

    /// The client has room for so many bytes more.
    void credit(std::uint64_t bytes);
    /// The session can send again.
    void drained();
    /// The client's word on the whole transfer.
    void outcome(int code, const std::string& status);

    /// True when something happened since the last time it was asked.
    bool takeProgress();
    void addTo(RpcUse& use) const;

  private:
    void schedule();
    void pump();
    bool fill(std::vector<Ref<Packet>>& packets);
    Ref<Packet> packetOf(const OutgoingFiles::Chunk& chunk) const;
    void send(RpcSession& session, const std::vector<Ref<Packet>>& packets);
    void goOn();

    const Setup setup_;
    mutable std::mutex mutex_;
    std::unique_ptr<OutgoingFiles> files_;  // of the one pump that runs
    std::uint64_t credit_;
    bool pumping_ = false;  // a pump is scheduled, runs, or its packets are on their way to the session
    bool blocked_ = false;  // the pump waits for the session
    bool allSent_ = false;
    bool ended_ = false;
    bool progress_ = false;
    RpcTransfer code_ = RpcTransfer::done;
    std::string status_;
    RpcUse use_;
};

}  // namespace qel::rpc
