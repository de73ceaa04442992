#include "auditing/AuditProtocol.h"

#include <gtest/gtest.h>

#include "qelCore/PacketScheme.h"
#include "support/AuditPackets.h"
#include "support/AuditStore.h"

namespace qel {
namespace {

namespace Protocol = AuditProtocol::AuditSession;

// What a static initialiser of another module would find.
PacketScheme* const dataAtStart = Protocol::AuditData;
const short dataTypeAtStart = Protocol::AuditData->getType();
const short ackVersionAtStart = Protocol::AuditDataAck->getNewestVersion();

TEST(AuditProtocol, SchemesAreReadyBeforeOtherStaticObjects) {
    EXPECT_EQ(dataAtStart, Protocol::AuditData);
    EXPECT_EQ(dataTypeAtStart, 301);
    EXPECT_EQ(ackVersionAtStart, 1);
}

TEST(AuditProtocol, AuditDataHasATimeAndAnEvent) {
    const PacketScheme& scheme = *Protocol::AuditData;
    EXPECT_EQ(scheme.getType(), 301);
    EXPECT_STREQ(scheme.getProtocolName(), "AuditProtocol");
    EXPECT_STREQ(scheme.getSessionName(), "AuditSession");
    EXPECT_STREQ(scheme.getName(), "AuditData");
    EXPECT_EQ(scheme.getNewestVersion(), 1);
    ASSERT_EQ(scheme.getElements().size(), 2U);
    EXPECT_EQ(scheme.getElementCount(1), 2);
    EXPECT_EQ(scheme.getElements()[0].name, "time");
    EXPECT_EQ(scheme.getElements()[0].count, 1);
    EXPECT_EQ(scheme.getElements()[0].size, 8);
    EXPECT_EQ(scheme.getElements()[0].kind, PacketScheme::kindOf<long long>());
    EXPECT_EQ(scheme.getElements()[1].name, "event");
    EXPECT_TRUE(scheme.getElements()[1].isItem());
    EXPECT_EQ(scheme.getElements()[1].size, -1);
}

TEST(AuditProtocol, AcknowledgementHasATimeOnly) {
    const PacketScheme& scheme = *Protocol::AuditDataAck;
    EXPECT_EQ(scheme.getType(), 302);
    EXPECT_STREQ(scheme.getProtocolName(), "AuditProtocol");
    EXPECT_STREQ(scheme.getSessionName(), "AuditSession");
    EXPECT_STREQ(scheme.getName(), "AuditDataAck");
    EXPECT_EQ(scheme.getNewestVersion(), 1);
    ASSERT_EQ(scheme.getElements().size(), 1U);
    EXPECT_EQ(scheme.getElements()[0].name, "time");
    EXPECT_EQ(scheme.getElements()[0].kind, PacketScheme::kindOf<long long>());
}

TEST(AuditProtocol, SchemesAreListedUnderTheirTypes) {
    EXPECT_EQ(PacketScheme::find(301), Protocol::AuditData);
    EXPECT_EQ(PacketScheme::find(302), Protocol::AuditDataAck);
}

TEST(AuditProtocol, PacketComesBackFromItsBytes) {
    const Ref<Packet> sent = test::dataPacket(-5, test::event("E", "p"));
    const Ref<Packet> received = Ref<Packet>::adopt(Packet::decode(sent->getEncoded()));
    ASSERT_TRUE(received->fit(Protocol::AuditData));
    EXPECT_FALSE(received->fit(Protocol::AuditDataAck));
    EXPECT_EQ(received->singleGet<long long>("time"), -5);
    EXPECT_EQ(received->getItem("event"), test::event("E", "p"));
}

TEST(AuditProtocol, PacketOfTheTypeWithOtherBytesDoesNotFit) {
    EXPECT_FALSE(test::foreignPacket(301)->fit(Protocol::AuditData));
    EXPECT_FALSE(test::foreignPacket(302)->fit(Protocol::AuditDataAck));
    EXPECT_EQ(test::foreignPacket(302)->getType(), 302);
}

}  // namespace
}  // namespace qel
