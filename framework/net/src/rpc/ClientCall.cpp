#include "rpc/ClientCall.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "qelCore/String.h"
#include "rpc/RpcPackets.h"

namespace qel::rpc {

namespace {

RpcTransfer transferCodeOf(RpcError error) {
    switch (error) {
        case RpcError::refusedByClient:
            return RpcTransfer::refused;
        case RpcError::cancelled:
            return RpcTransfer::cancelled;
        default:
            return RpcTransfer::clientCannotWrite;
    }
}

// The bytes element that is the whole content of a data packet.
bool bytesOf(const Packet& packet, Item& bytes) {
    Item::Iterator elements(packet.getItemBytes("content"));
    return elements.decodeElementAsBytes(bytes) && elements.atEnd();
}

std::uint64_t numberOf(const Packet& packet, const char* name) {
    // A negative number becomes one that nothing can match.
    return static_cast<std::uint64_t>(packet.singleGet<long long>(name));
}

}  // namespace

ClientCall::ClientCall(long long id, RpcRequest request, Send send)
    : id_(id),
      request_(std::move(request)),
      send_(std::move(send)),
      files_(request_.targets, request_.createFolders) {}

void ClientCall::start() {
    Item content;
    content.addString(request_.name);
    content.addItem(request_.arguments);
    const Ref<Packet> packet = makePacket(callScheme, id_);
    packet->singleSet<long long>("window", static_cast<long long>(request_.window));
    packet->singleSet<long long>("rows", static_cast<long long>(request_.largestRows));
    packet->setItem("content", content);
    send_(packet);
}

void ClientCall::packetReceived(Packet& packet) {
    struct Kind {
        PacketScheme* scheme;
        void (ClientCall::*handle)(Packet&);
    };
    static const Kind kinds[] = {
        {transferBeginScheme, &ClientCall::transferBegins},
        {fileDataScheme, &ClientCall::fileData},
        {fileEndScheme, &ClientCall::fileEnds},
        {resultDataScheme, &ClientCall::resultData},
        {resultEndScheme, &ClientCall::resultEnds},
        {errorScheme, &ClientCall::errorReceived},
    };
    if (over_)
        return;
    if (packet.fit(workingScheme) && packet.singleGet<long long>("call") == id_) {
        progress_.preparingSeconds = numberOf(packet, "seconds");
        progress_.preparedBytes = numberOf(packet, "bytes");
        return;
    }
    for (const Kind& kind : kinds)
        if (packet.fit(kind.scheme)) {
            if (packet.singleGet<long long>("call") == id_)
                (this->*kind.handle)(packet);
            return;
        }
}

void ClientCall::end(RpcError error, const std::string& sentence) {
    if (std::exchange(over_, true))
        return;
    reply_.error = error;
    reply_.sentence = sentence;
}

void ClientCall::cancel(const std::string& sentence) {
    if (!over_)
        send_(makePacket(cancelScheme, id_));
    end(RpcError::cancelled, sentence);
}

void ClientCall::refuse(const std::string& sentence) {
    if (!over_)
        send_(makePacket(cancelScheme, id_));
    end(RpcError::refusedByClient, sentence);
}

RpcReply ClientCall::takeReply() {
    if (reply_.error == RpcError::none)
        reply_.files = files_.kept();
    return std::move(reply_);
}

// ----- files

void ClientCall::transferBegins(Packet& packet) {
    std::vector<IncomingFiles::Announced> announced;
    const Item content = contentOf(packet);
    Item::Iterator elements(content);
    Item entry;
    while (elements.decodeElementAsItem(entry)) {
        Item::Iterator fields(entry);
        String target;
        long long size = -1;
        if (!fields.decodeElementAsString(target) || !fields.decodeElementAsInteger(size) || size < 0 ||
            announced.size() == request_.targets.size()) {
            check({RpcError::refusedByClient, "the server announced other files than those asked for"});
            return;
        }
        announced.push_back({target.str(), static_cast<std::uint64_t>(size)});
    }
    if (!check(files_.begin(announced)))
        return;
    progress_.transferring = true;
    progress_.total = files_.totalBytes();
    filesArrived();
}

void ClientCall::fileData(Packet& packet) {
    Item bytes;
    if (!bytesOf(packet, bytes)) {
        check({RpcError::refusedByClient, "the server sent file data that cannot be understood"});
        return;
    }
    if (!check(files_.data(static_cast<std::size_t>(numberOf(packet, "file")), numberOf(packet, "offset"),
                           bytes.bytes().view())))
        return;
    progress_.bytes = files_.receivedBytes();
    giveCredit(bytes.size());
}

void ClientCall::fileEnds(Packet& packet) {
    Item digest;
    const bool decoded = bytesOf(packet, digest);
    if (check(files_.end(static_cast<std::size_t>(numberOf(packet, "file")), numberOf(packet, "size"),
                         decoded ? digest.bytes().view() : std::string_view())))
        filesArrived();
}

void ClientCall::filesArrived() {
    if (!files_.isWhole() || confirmed_)
        return;
    confirmed_ = true;
    if (check(files_.keep()))
        sendOutcome(RpcTransfer::done, "");
}

bool ClientCall::check(const IncomingFiles::Fault& fault) {
    if (!fault)
        return true;
    sendOutcome(transferCodeOf(fault.error), fault.sentence);
    end(fault.error, fault.sentence);
    return false;
}

void ClientCall::sendOutcome(RpcTransfer code, const std::string& status) {
    const Ref<Packet> packet = makePacket(transferOutcomeScheme, id_);
    packet->singleSet<long long>("code", static_cast<int>(code));
    setText(*packet, status);
    send_(packet);
}

void ClientCall::giveCredit(std::uint64_t bytes) {
    owed_ += bytes;
    // Told in larger steps, so that not every data packet is answered by one.
    if (owed_ < request_.window / 4)
        return;
    const Ref<Packet> packet = makePacket(creditScheme, id_);
    packet->singleSet<long long>("bytes", static_cast<long long>(owed_));
    send_(packet);
    owed_ = 0;
}

// ----- result

void ClientCall::resultData(Packet& packet) {
    Item bytes;
    if (!bytesOf(packet, bytes) || numberOf(packet, "offset") != result_.size() ||
        bytes.size() > request_.largestResult - result_.size()) {
        return refuse("the server sent a result out of turn, or a larger one than is taken");
    }
    result_.append(bytes.bytes().view());
    if (!progress_.transferring)
        progress_.bytes = result_.size();
    giveCredit(bytes.size());
}

void ClientCall::resultEnds(Packet& packet) {
    const ConstByteSpan bytes(result_);
    if (numberOf(packet, "size") != result_.size() || !Item::isWellFormed(bytes, result_.size()))
        return end(RpcError::refusedByClient, "the server sent a result that cannot be understood");
    reply_.result.setPlain(bytes);
    result_ = {};
    const long long code = packet.singleGet<long long>("code");
    if (code != 0)
        return end(RpcError::transferFailed, "the file transfer failed: " + textOf(packet));
    if (!request_.targets.empty() && files_.kept().empty())
        return end(RpcError::transferFailed, "the server answered without sending the files");
    over_ = true;
}

void ClientCall::errorReceived(Packet& packet) {
    const long long code = packet.singleGet<long long>("code");
    const bool known = code > 0 && code <= static_cast<int>(RpcError::failed);
    const RpcError error = known ? static_cast<RpcError>(code) : RpcError::failed;
    std::string sentence = textOf(packet);
    if (sentence.empty())
        sentence = std::string("the server gave no reason but this: ") + describe(error);
    if (error == RpcError::notAnswered)
        sentence.insert(0, "the server did not answer this call: ");
    end(error, sentence);
}

}  // namespace qel::rpc
