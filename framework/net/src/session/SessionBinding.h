#pragma once

#include <memory>

#include "qelNet/Session.h"
#include "session/Channel.h"

namespace qel {

/// The one place that ties a session to its service, peer and channel, and unties it.
class SessionBinding {
  public:
    static void attach(Session& session, Service& service, Peer& peer, std::shared_ptr<Channel> channel) {
        session.service_ = &service;
        session.peer_ = &peer;
        session.channel_ = std::move(channel);
        session.peerAttached();
    }

    /// Nothing can be sent any more; then the session goes.
    static void release(Session& session) {
        session.channel_.reset();
        session.drained_ = nullptr;
        session.release();
    }

    static void drained(Session& session) {
        if (const auto handler = session.drained_)
            handler();
    }
};

}  // namespace qel
