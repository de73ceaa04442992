#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace qel {
class NetworkPeer;
}

namespace qel::rpc {

class RpcSession;

/// The way from a call, whose threads know nothing of connections, to its session while that lives. `post` from any
/// thread, `cut` on the session's strand.
class SessionLink {
  public:
    SessionLink(NetworkPeer* peer, RpcSession* session) : peer_(peer), session_(session) {}

    /// Runs `function` on the strand, unless the session is over by then.
    void post(std::function<void(RpcSession&)> function);
    /// Closes the whole connection.
    void disconnect(const std::string& reason);
    void cut();

    static std::shared_ptr<SessionLink> make(NetworkPeer* peer, RpcSession* session);

  private:
    std::mutex mutex_;
    NetworkPeer* peer_;
    RpcSession* session_;
    std::weak_ptr<SessionLink> self_;
};

}  // namespace qel::rpc
