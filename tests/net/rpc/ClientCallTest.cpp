#include "rpc/ClientCall.h"

#include <gtest/gtest.h>

#include "rpc/RpcPackets.h"

namespace qel::rpc {
namespace {

constexpr long long number = 7;

RpcReply replyTo(RpcError error, const char* text) {
    ClientCall call(number, RpcRequest(), [](const Ref<Packet>&) {});
    call.start();
    const Ref<Packet> packet = makePacket(errorScheme, number);
    packet->singleSet<long long>("code", static_cast<int>(error));
    if (text != nullptr)
        setText(*packet, text);
    call.packetReceived(*packet);
    EXPECT_TRUE(call.isOver());
    return call.takeReply();
}

TEST(ClientCall, FailureHasTheServersSentence) {
    const RpcReply reply = replyTo(RpcError::notPermitted, "anna may not do this");
    EXPECT_EQ(reply.error, RpcError::notPermitted);
    EXPECT_EQ(reply.sentence, "anna may not do this");
}

TEST(ClientCall, FailureWithoutAReasonHasASentenceAllTheSame) {
    for (const char* const text : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(replyTo(RpcError::busy, text).sentence, "the server gave no reason but this: busy");
        EXPECT_EQ(replyTo(RpcError::notAnswered, text).sentence,
                  "the server did not answer this call: the server gave no reason but this: not answered");
        EXPECT_EQ(replyTo(static_cast<RpcError>(1000), text).error, RpcError::failed);
    }
}

}  // namespace
}  // namespace qel::rpc
