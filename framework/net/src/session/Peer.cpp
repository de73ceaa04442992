#include "qelNet/Peer.h"

#include <utility>

namespace qel {

Peer::Peer(Identity identity, std::string address, NetworkPeer* networkPeer)
    : identity_(std::move(identity)), address_(std::move(address)), networkPeer_(networkPeer) {}

Peer::~Peer() = default;

void Peer::setIdentity(Identity identity, std::string address) {
    identity_ = std::move(identity);
    address_ = std::move(address);
}

}  // namespace qel
