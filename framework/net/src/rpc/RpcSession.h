#pragma once

#include <map>
#include <memory>
#include <string>

#include "qelNet/RpcService.h"
#include "qelNet/Session.h"
#include "rpc/ServerCall.h"

namespace qel::rpc {

/// The service's end of a session of remote calls: starts calls, hands them what the client says of them, and sends
/// their results as fast as the client takes them.
class RpcSession : public Session {
    QEL_CLASS(RpcSession, Session)

    explicit RpcSession(std::shared_ptr<RpcService::Core> core);
    ~RpcSession() override;

    void peerAttached() override;
    void release() override;
    void tick() override;
    bool packetReceived(Packet* packet) override;

    /// The call is over: its answer may leave.
    void answer(long long id, CallAnswer&& answer);

  private:
    /// A result on its way.
    struct Sending {
        CallAnswer answer;
        std::size_t offset = 0;
        std::uint64_t credit = 0;
        std::uint64_t window = 0;
        std::size_t chunkBytes = 0;
    };

    void callReceived(Packet& packet);
    bool admit(long long id, const std::string& name, const RpcProvider::Call* call);
    void start(Packet& packet, std::shared_ptr<const RpcProvider::Call> call, const Item& arguments);
    void creditReceived(Packet& packet);
    void sendError(long long id, RpcError error, const std::string& sentence);
    void sendResults();
    bool sendSome(long long id, Sending& sending);
    void sendEnd(long long id, const Sending& sending);
    void drained();
    std::string callerText() const;

    const std::shared_ptr<RpcService::Core> core_;
    std::shared_ptr<SessionLink> link_;
    RpcCaller caller_;
    std::map<long long, std::shared_ptr<ServerCall>> calls_;
    std::map<long long, Sending> sending_;
};

}  // namespace qel::rpc
