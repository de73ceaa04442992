#include "rpc/SessionLink.h"

#include <utility>

#include "qelNet/Peer.h"

namespace qel::rpc {

std::shared_ptr<SessionLink> SessionLink::make(NetworkPeer* peer, RpcSession* session) {
    auto link = std::make_shared<SessionLink>(peer, session);
    link->self_ = link;
    return link;
}

void SessionLink::post(std::function<void(RpcSession&)> function) {
    const std::lock_guard lock(mutex_);
    if (peer_ == nullptr)
        return;
    peer_->post([self = self_.lock(), run = std::move(function)] {
        // On the strand, where alone the session is cut off: no lock.
        if (self->session_ != nullptr)
            run(*self->session_);
    });
}

void SessionLink::disconnect(const std::string& reason) {
    const std::lock_guard lock(mutex_);
    if (peer_ != nullptr)
        peer_->disconnect(reason);
}

void SessionLink::cut() {
    const std::lock_guard lock(mutex_);
    peer_ = nullptr;
    session_ = nullptr;
}

}  // namespace qel::rpc
