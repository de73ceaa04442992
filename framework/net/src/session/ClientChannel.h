#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "qelCore/ConstByteSpan.h"
#include "session/Channel.h"
#include "session/Executor.h"
#include "session/OutputQueue.h"

namespace qel {

class ClientConnection;

/// The client's end of one session. Its query may be destroyed on any thread: forgetting the listener waits for a call
/// that is under way on another one. No lock is held during the call, so that the host's own locks cannot meet it.
class ClientChannel : public Channel, public std::enable_shared_from_this<ClientChannel> {
  public:
    ClientChannel(std::shared_ptr<Executor> executor, std::string service, short type,
                  ChannelListener& listener);

    bool send(Packet& packet) override;
    bool canSend() override;
    bool isOpen() const override { return state_ == State::open; }
    bool isClosed() const override { return state_ == State::closed; }
    void close(const std::string& reason) override;
    void forgetListener() override;

    const std::string& getService() const { return service_; }
    short getType() const { return type_; }
    std::uint32_t getId() const { return id_; }
    const OutputQueue::Lane& lane() const { return lane_; }

    // The connection's side, on its executor.
    void assign(std::weak_ptr<ClientConnection> connection, std::uint32_t id);
    void opened();
    /// Returns false when nobody wanted the packet.
    bool packetReceived(Peer& peer, Packet& packet);
    void burstEnded();
    void drained();
    void tick();
    void closed(const std::string& reason);

  private:
    enum class State { waiting, opening, open, closed };
    struct CallEnd;
    ChannelListener* beginCall();
    void endCall();
    template <class Call>
    auto tell(Call call) -> decltype(call(std::declval<ChannelListener&>()));
    bool sendHere(ConstByteSpan packet);
    void closeHere(const std::string& reason);

    std::shared_ptr<Executor> executor_;
    std::string service_;
    short type_;
    std::mutex mutex_;
    std::condition_variable callEnded_;
    ChannelListener* listener_;
    int calls_ = 0;  // under way, one inside the other, on caller_
    std::thread::id caller_;
    std::atomic<State> state_{State::waiting};
    std::weak_ptr<ClientConnection> connection_;
    std::uint32_t id_ = 0;
    OutputQueue::Lane lane_ = std::make_shared<OutputLane>();
    bool inBurst_ = false;
};

}  // namespace qel
