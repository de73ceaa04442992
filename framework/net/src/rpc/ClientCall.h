#pragma once

#include <functional>
#include <string>

#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelNet/RpcClient.h"
#include "rpc/IncomingFiles.h"

namespace qel::rpc {

/// One call as the caller sees it: what to send first, and what each packet of the service means. It knows no
/// connection and no time. One thread.
class ClientCall {
  public:
    using Send = std::function<void(const Ref<Packet>&)>;

    ClientCall(long long id, RpcRequest request, Send send);

    void start();
    /// Packets of other calls are passed over.
    void packetReceived(Packet& packet);
    /// The call is over for a reason of this end.
    void end(RpcError error, const std::string& sentence);
    void cancel(const std::string& sentence);
    /// The service did what it must not do.
    void refuse(const std::string& sentence);

    bool isOver() const { return over_; }
    const RpcProgress& progress() const { return progress_; }
    RpcReply takeReply();

  private:
    void transferBegins(Packet& packet);
    void fileData(Packet& packet);
    void fileEnds(Packet& packet);
    void filesArrived();
    void resultData(Packet& packet);
    void resultEnds(Packet& packet);
    void errorReceived(Packet& packet);
    bool check(const IncomingFiles::Fault& fault);
    void giveCredit(std::uint64_t bytes);
    void sendOutcome(RpcTransfer code, const std::string& status);

    const long long id_;
    const RpcRequest request_;
    const Send send_;
    IncomingFiles files_;
    RpcProgress progress_;
    RpcReply reply_;
    std::string result_;
    std::uint64_t owed_ = 0;  // room that the service has not been told of yet
    bool confirmed_ = false;
    bool over_ = false;
};

}  // namespace qel::rpc
