#include "rpc/RpcPackets.h"

#include <initializer_list>
#include <string>

#include "qelCore/PacketScheme.h"
#include "qelCore/String.h"

namespace qel::rpc {

namespace {

/// Every packet of this protocol: whole numbers first, then, in most of them, one item.
class RpcScheme : public PacketScheme {
  public:
    RpcScheme(short type, const char* name, std::initializer_list<const char*> numbers, bool content)
        : PacketScheme(type, "RpcProtocol", "RpcSession", name) {
        for (const char* number : numbers)
            addElement(number, 1, 8, &typeid(long long), nullptr);
        if (content)
            Item("content", -1);
        NextVersion();
    }
};

RpcScheme call(callType, "Call", {"call", "window", "rows"}, true);
RpcScheme credit(creditType, "Credit", {"call", "bytes"}, false);
RpcScheme transferOutcome(transferOutcomeType, "TransferOutcome", {"call", "code"}, true);
RpcScheme cancel(cancelType, "Cancel", {"call"}, false);
RpcScheme working(workingType, "Working", {"call", "seconds", "bytes"}, false);
RpcScheme transferBegin(transferBeginType, "TransferBegin", {"call"}, true);
RpcScheme fileData(fileDataType, "FileData", {"call", "file", "offset"}, true);
RpcScheme fileEnd(fileEndType, "FileEnd", {"call", "file", "size"}, true);
RpcScheme resultData(resultDataType, "ResultData", {"call", "offset"}, true);
RpcScheme resultEnd(resultEndType, "ResultEnd", {"call", "size", "code"}, true);
RpcScheme error(errorType, "Error", {"call", "code"}, true);

}  // namespace

PacketScheme* const callScheme = &call;
PacketScheme* const creditScheme = &credit;
PacketScheme* const transferOutcomeScheme = &transferOutcome;
PacketScheme* const cancelScheme = &cancel;
PacketScheme* const workingScheme = &working;
PacketScheme* const transferBeginScheme = &transferBegin;
PacketScheme* const fileDataScheme = &fileData;
PacketScheme* const fileEndScheme = &fileEnd;
PacketScheme* const resultDataScheme = &resultData;
PacketScheme* const resultEndScheme = &resultEnd;
PacketScheme* const errorScheme = &error;

Ref<Packet> makePacket(PacketScheme* scheme, long long callId) {
    Ref<Packet> packet = Ref<Packet>::adopt(new Packet(scheme, -1));
    packet->singleSet<long long>("call", callId);
    return packet;
}

Item contentOf(const Packet& packet) {
    return packet.getItem("content");
}

std::string textOf(const Packet& packet) {
    String text;
    Item::Iterator elements(packet.getItemBytes("content"));
    elements.decodeElementAsString(text);
    return text.str();
}

void setText(Packet& packet, std::string_view text) {
    Item content;
    content.addString(text);
    packet.setItem("content", content);
}

}  // namespace qel::rpc
