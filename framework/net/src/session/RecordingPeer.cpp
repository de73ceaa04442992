#include "qelNet/RecordingPeer.h"

#include <utility>

#include "qelCore/Export.h"
#include "qelCore/Packet.h"
#include "qelNet/Service.h"
#include "session/Channel.h"
#include "session/SessionBinding.h"

namespace qel {

/// Network peer and channel in one: everything that is sent goes into one list.
class QEL_HIDDEN RecordingPeer::Recorder : public NetworkPeer {
  public:
    class RecordingChannel : public Channel {
      public:
        explicit RecordingChannel(Recorder& recorder) : recorder_(&recorder) {}
        bool send(Packet& packet) override {
            if (closed_)
                return false;
            packet.increaseReferenceCount();
            recorder_->sent.push_back(&packet);
            return true;
        }
        bool canSend() override { return !closed_ && !recorder_->blocked; }
        bool isOpen() const override { return !closed_; }
        bool isClosed() const override { return closed_; }
        void close(const std::string&) override { closed_ = true; }
        void forgetListener() override {}

      private:
        Recorder* recorder_;
        bool closed_ = false;
    };

    ~Recorder() override { clear(); }
    bool cannotSend() const override { return blocked; }
    bool isConnected() const override { return true; }
    NetworkLimits getRemoteLimits() const override { return {}; }
    void post(std::function<void()> function) override { function(); }
    void disconnect(const std::string&) override { blocked = true; }
    std::shared_ptr<Channel> openChannel(const std::string&, short, ChannelListener&) override {
        return std::make_shared<RecordingChannel>(*this);
    }

    void clear() {
        for (Packet* packet : std::exchange(sent, {}))
            packet->decreaseReferenceCount();
    }

    bool blocked = false;
    std::vector<Packet*> sent;
};

RecordingPeer::RecordingPeer(Identity identity, std::string address)
    : RecordingPeer(std::move(identity), std::move(address), std::make_unique<Recorder>()) {}

RecordingPeer::RecordingPeer(Identity identity, std::string address, std::unique_ptr<Recorder> recorder)
    : Peer(std::move(identity), std::move(address), recorder.get()), recorder_(std::move(recorder)) {}

RecordingPeer::~RecordingPeer() = default;

void RecordingPeer::setCannotSend(bool cannotSend) {
    recorder_->blocked = cannotSend;
}

Session* RecordingPeer::attach(Service& service, short type) {
    Session* session = service.createSession(type);
    if (session)
        SessionBinding::attach(*session, service, *this,
                               std::make_shared<Recorder::RecordingChannel>(*recorder_));
    return session;
}

const std::vector<Packet*>& RecordingPeer::getSent() const {
    return recorder_->sent;
}

void RecordingPeer::clearSent() {
    recorder_->clear();
}

}  // namespace qel
