#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "auditing/AuditClient.h"
#include "auditing/AuditService.h"
#include "transport/AuditSession.h"

namespace qel {
namespace {

/// The place of a virtual operation in its class's table. Hosts built by other compilers rely on the order: the two
/// name operations, the destructor (two places), then what the classes document.
template <class Member>
std::ptrdiff_t slot(Member member) {
    // A pointer to a virtual member holds its offset in the table plus one.
    std::ptrdiff_t offset = 0;
    static_assert(sizeof member >= sizeof offset);
    std::memcpy(&offset, &member, sizeof offset);
    return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(SlotOrder, ServiceKeepsTheOrderOfItsBase) {
    EXPECT_EQ(slot(&AuditService::getDynamicClassName), 0);
    EXPECT_EQ(slot(&AuditService::getDynamicClassChain), 1);
    EXPECT_EQ(slot(static_cast<bool (AuditService::*)(Peer*, Packet*)>(&AuditService::packetReceived)), 4);
    EXPECT_EQ(slot(&AuditService::createSession), 5);
    EXPECT_EQ(slot(&AuditService::tick), 6);
    EXPECT_EQ(slot(&AuditService::report), 7);
}

TEST(SlotOrder, SessionIsAttachedReleasedTickedAndFed) {
    EXPECT_EQ(slot(&AuditSession::getDynamicClassName), 0);
    EXPECT_EQ(slot(&AuditSession::getDynamicClassChain), 1);
    EXPECT_EQ(slot(&AuditSession::peerAttached), 4);
    EXPECT_EQ(slot(&AuditSession::release), 5);
    EXPECT_EQ(slot(&AuditSession::tick), 6);
    EXPECT_EQ(slot(&AuditSession::packetReceived), 7);
}

TEST(SlotOrder, FactoryCreatesBehindItsDestructor) {
    using Factory = Service::SessionFactory<AuditSession>;
    EXPECT_EQ(slot(&Factory::getDynamicClassName), 0);
    EXPECT_EQ(slot(&Factory::getDynamicClassChain), 1);
    EXPECT_EQ(slot(static_cast<Session* (Factory::*)()>(&Factory::createSession)), 4);
}

TEST(SlotOrder, QueryTakesPacketsOfItsPeerFirstAndItsOwnLast) {
    using Query = AuditClient::AuditQuery;
    EXPECT_EQ(slot(&Query::getDynamicClassName), 0);
    EXPECT_EQ(slot(&Query::getDynamicClassChain), 1);
    EXPECT_EQ(slot(static_cast<bool (Query::*)(Peer*, Packet*)>(&Query::packetReceived)), 4);
    EXPECT_EQ(slot(&Query::createSession), 5);
    EXPECT_EQ(slot(&Query::tick), 6);
    EXPECT_EQ(slot(&Query::report), 7);
    EXPECT_EQ(slot(static_cast<bool (Query::*)(Packet*)>(&Query::packetReceived)), 8);
}

TEST(SlotOrder, ClientNamesItselfFirst) {
    EXPECT_EQ(slot(&AuditClient::getDynamicClassName), 0);
    EXPECT_EQ(slot(&AuditClient::getDynamicClassChain), 1);
}

}  // namespace
}  // namespace qel
