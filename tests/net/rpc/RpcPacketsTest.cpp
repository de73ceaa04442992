#include "rpc/RpcPackets.h"

#include <gtest/gtest.h>

#include "qelNet/RpcProtocol.h"

namespace qel::rpc {
namespace {

std::string hex(const Packet& packet) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : packet.getEncoded()) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

TEST(RpcPackets, ACancelIsTheDocumentedBytes) {
    EXPECT_EQ(hex(*makePacket(cancelScheme, 7)),
              "0194"
              "0001"
              "13"
              "0000000000000007");
}

TEST(RpcPackets, AnErrorIsTheDocumentedBytes) {
    const Ref<Packet> packet = makePacket(errorScheme, 7);
    packet->singleSet<long long>("code", static_cast<int>(RpcError::notPermitted));
    setText(*packet, "no");
    EXPECT_EQ(hex(*packet),
              "01c9"
              "0001"
              "13"
              "0000000000000007"
              "13"
              "0000000000000001"
              "50"
              "00000004"
              "286e6f00");
}

TEST(RpcPackets, TheSessionTypeAndTheNumbersStay) {
    EXPECT_EQ(rpcSessionType, 4);
    const short types[] = {401, 402, 403, 404, 451, 452, 453, 454, 455, 456, 457};
    PacketScheme* const schemes[] = {callScheme,      creditScheme,  transferOutcomeScheme,
                                     cancelScheme,    workingScheme, transferBeginScheme,
                                     fileDataScheme,  fileEndScheme, resultDataScheme,
                                     resultEndScheme, errorScheme};
    for (std::size_t i = 0; i < std::size(types); ++i)
        EXPECT_EQ(makePacket(schemes[i], 1)->getType(), types[i]);
}

TEST(RpcPackets, TextThatIsNoneReadsAsEmpty) {
    const Ref<Packet> packet = makePacket(errorScheme, 1);
    EXPECT_EQ(textOf(*packet), "");
    Item number;
    number.addInteger(5);
    packet->setItem("content", number);
    EXPECT_EQ(textOf(*packet), "");
}

}  // namespace
}  // namespace qel::rpc
