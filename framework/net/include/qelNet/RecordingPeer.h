#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qelNet/Export.h"
#include "qelNet/Peer.h"

namespace qel {

class Packet;
class Service;
class Session;

/// A peer for tests of single sessions and queries: what is sent to it is kept in a list instead of being
/// sent, and its state test is set by hand. No bytes, no threads; one thread uses it.
class QELNET_EXPORT RecordingPeer : public Peer {
  public:
    explicit RecordingPeer(Identity identity = {}, std::string address = "recorded:0");
    ~RecordingPeer() override;

    /// What the state test of its network peer answers: true = cannot take packets. False at first.
    void setCannotSend(bool cannotSend);

    /// A session of that type from the service's factory, bound to this peer, peerAttached called; null when
    /// there is no such factory. The caller ends it with Session::release before this peer goes.
    Session* attach(Service& service, short type);

    /// The packets that sessions and queries of this peer sent, oldest first; this peer holds their
    /// references.
    const std::vector<Packet*>& getSent() const;
    void clearSent();

  private:
    class Recorder;
    explicit RecordingPeer(Identity identity, std::string address, std::unique_ptr<Recorder> recorder);
    std::unique_ptr<Recorder> recorder_;
};

}  // namespace qel
