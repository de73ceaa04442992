#include "rpc/RpcSession.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "qelCore/logging/MessageStream.h"
#include "qelNet/Peer.h"
#include "rpc/RpcCore.h"
#include "rpc/RpcPackets.h"

namespace qel::rpc {

namespace {

// Data of one packet: large enough to cost little beside its header, small enough that acknowledgements of the same
// connection need not wait for long.
constexpr std::size_t largestChunk = 128UL * 1024;
// What a client may ask to be sent ahead.
constexpr std::uint64_t smallestWindow = 16UL * 1024;
constexpr std::uint64_t largestWindow = std::uint64_t{64} << 20;

std::size_t chunkFor(const Peer& peer) {
    const NetworkPeer* network = peer.getNetworkPeer();
    const std::size_t frame =
        network == nullptr ? NetworkLimits().frameBytes : network->getRemoteLimits().frameBytes;
    // Every byte may need two: zeros are escaped.
    return std::clamp<std::size_t>(frame < 2 * packetOverhead ? 1 : (frame - packetOverhead) / 2, 1,
                                   largestChunk);
}

}  // namespace

RpcSession::RpcSession(std::shared_ptr<RpcService::Core> core) : core_(std::move(core)) {}
RpcSession::~RpcSession() = default;

void RpcSession::peerAttached() {
    Session::peerAttached();
    const Peer* peer = getPeer();
    caller_.identity = {peer->getUserName(), peer->getDeviceName(), peer->getUserBlock(),
                        peer->getDeviceBlock()};
    caller_.address = peer->getAddress();
    link_ = SessionLink::make(peer->getNetworkPeer(), this);
    setDrainedHandler([this] { drained(); });
}

void RpcSession::release() {
    if (link_ != nullptr)
        link_->cut();
    for (const auto& [id, call] : calls_)
        call->abandon(RpcTransfer::connectionLost, "the connection was lost");
    calls_.clear();
    sending_.clear();
    Session::release();
}

void RpcSession::tick() {
    for (const auto& [id, call] : calls_)
        call->tick();
}

bool RpcSession::packetReceived(Packet* packet) {
    const short type = packet->getType();
    if (type < callType || type > cancelType)
        return false;
    if (type == callType && packet->fit(callScheme)) {
        callReceived(*packet);
    } else if (type == creditType && packet->fit(creditScheme)) {
        creditReceived(*packet);
    } else if (type == transferOutcomeType && packet->fit(transferOutcomeScheme)) {
        const auto call = calls_.find(packet->singleGet<long long>("call"));
        const long long code = packet->singleGet<long long>("code");
        if (call != calls_.end())
            call->second->transferOutcome(static_cast<int>(std::clamp(code, -1LL, 1000LL)), textOf(*packet));
    } else if (type == cancelType && packet->fit(cancelScheme)) {
        const long long id = packet->singleGet<long long>("call");
        if (const auto call = calls_.find(id); call != calls_.end())
            call->second->abandon(RpcTransfer::cancelled, "the client cancelled the call");
        sending_.erase(id);
    }
    return true;
}

// ----- calls

void RpcSession::callReceived(Packet& packet) {
    const long long id = packet.singleGet<long long>("call");
    String name;
    Item arguments;
    const Item content = contentOf(packet);
    Item::Iterator elements(content);
    if (!elements.decodeElementAsString(name) || !elements.decodeElementAsItem(arguments) ||
        calls_.count(id) != 0 || sending_.count(id) != 0)
        return sendError(id, RpcError::badRequest, "this is no call that can be understood");
    std::shared_ptr<const RpcProvider::Call> call = core_->provider->find(name.c_str());
    if (admit(id, name.str(), call.get()))
        start(packet, std::move(call), arguments);
}

bool RpcSession::admit(long long id, const std::string& name, const RpcProvider::Call* call) {
    if (call == nullptr) {
        logging::MessageStream(2, 2) << "remote call " << name << " does not exist; asked for by "
                                     << callerText();
        sendError(id, RpcError::noSuchCall, "the server has no call named " + name);
        return false;
    }
    if (core_->guard != nullptr && !core_->guard->permits(caller_, *call)) {
        ++core_->counters.notPermitted;
        logging::MessageStream(2, 2) << "remote call " << name << " is not permitted to " << callerText();
        sendError(id, RpcError::notPermitted,
                  "user " + caller_.identity.user + " is not permitted to make the call " + name);
        return false;
    }
    if (calls_.size() + sending_.size() >= core_->options.callsPerConnection) {
        sendError(id, RpcError::busy, "this connection has too many calls open already");
        return false;
    }
    return true;
}

void RpcSession::start(Packet& packet, std::shared_ptr<const RpcProvider::Call> call, const Item& arguments) {
    ServerCall::Setup setup;
    setup.core = core_;
    setup.link = link_;
    setup.call = std::move(call);
    setup.caller = caller_;
    setup.id = packet.singleGet<long long>("call");
    const long long window = packet.singleGet<long long>("window");
    setup.window =
        std::clamp(static_cast<std::uint64_t>(std::max(window, 0LL)), smallestWindow, largestWindow);
    const auto rows = static_cast<std::uint64_t>(std::max(packet.singleGet<long long>("rows"), 0LL));
    setup.mostRows = core_->options.rowsPerCall;
    if (rows > 0)
        setup.mostRows = std::min(setup.mostRows, rows);
    setup.chunkBytes = chunkFor(*getPeer());
    const long long id = setup.id;
    const std::shared_ptr<ServerCall> started = ServerCall::make(std::move(setup), arguments);
    if (started->start())
        calls_[id] = started;
    else
        sendError(id, RpcError::busy, "the server works on too many calls already; try again later");
}

void RpcSession::creditReceived(Packet& packet) {
    const long long id = packet.singleGet<long long>("call");
    const auto bytes = static_cast<std::uint64_t>(std::max(packet.singleGet<long long>("bytes"), 0LL));
    if (const auto call = calls_.find(id); call != calls_.end())
        call->second->credit(bytes);
    const auto found = sending_.find(id);
    if (found == sending_.end())
        return;
    Sending& sending = found->second;
    sending.credit = std::min(sending.credit + std::min(bytes, sending.window), sending.window);
    sendResults();
}

// ----- answers

void RpcSession::sendError(long long id, RpcError error, const std::string& sentence) {
    const Ref<Packet> packet = makePacket(errorScheme, id);
    packet->singleSet<long long>("code", static_cast<int>(error));
    setText(*packet, sentence);
    sendPacket(packet.get());
}

void RpcSession::answer(long long id, CallAnswer&& answer) {
    const auto found = calls_.find(id);
    if (found == calls_.end())
        return;
    const std::shared_ptr<ServerCall> call = std::move(found->second);
    calls_.erase(found);
    if (answer.error != RpcError::none)
        return sendError(id, answer.error, answer.sentence);
    Sending& sending = sending_[id];
    sending.answer = std::move(answer);
    sending.credit = sending.window = call->window();
    sending.chunkBytes = call->chunkBytes();
    sendResults();
}

void RpcSession::sendResults() {
    for (auto at = sending_.begin(); at != sending_.end();)
        at = sendSome(at->first, at->second) ? sending_.erase(at) : std::next(at);
}

bool RpcSession::sendSome(long long id, Sending& sending) {
    const Item& result = sending.answer.result;
    while (sending.offset < result.size()) {
        const auto size = static_cast<std::size_t>(
            std::min<std::uint64_t>({sending.chunkBytes, sending.credit, result.size() - sending.offset}));
        if (size == 0 || !canSend())
            return false;
        const Ref<Packet> packet = makePacket(resultDataScheme, id);
        packet->singleSet<long long>("offset", static_cast<long long>(sending.offset));
        Item content;
        content.addBytes(result.data() + sending.offset, size);
        packet->setItem("content", content);
        sendPacket(packet.get());
        sending.offset += size;
        sending.credit -= size;
    }
    sendEnd(id, sending);
    return true;
}

void RpcSession::sendEnd(long long id, const Sending& sending) {
    const Ref<Packet> packet = makePacket(resultEndScheme, id);
    packet->singleSet<long long>("size", static_cast<long long>(sending.answer.result.size()));
    packet->singleSet<long long>("code", sending.answer.transferCode);
    setText(*packet, sending.answer.transferStatus);
    sendPacket(packet.get());
}

void RpcSession::drained() {
    sendResults();
    for (const auto& [id, call] : calls_)
        call->drained();
}

std::string RpcSession::callerText() const {
    return "user " + caller_.identity.user + " at device " + caller_.identity.device + ", address " +
           caller_.address;
}

}  // namespace qel::rpc
