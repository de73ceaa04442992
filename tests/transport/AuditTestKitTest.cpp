#include "auditing/AuditTestKit.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace qel {
namespace {

using Events = std::vector<testkit::FakeAuditService::Event>;

class AuditTestKitTest : public ::testing::Test {
  protected:
    AuditTestKitTest() {
        Item path;
        path.addString("queue");
        queue_.setPath(path);
    }
    void record(const char* name, long long parameter) {
        Item event;
        event.addString(name);
        event.addInteger(parameter);
        queue_.append(event);
    }
    bool queueIsEmpty() const {
        Item first;
        return !queue_.getPath().child(first);
    }

    testkit::TemporaryStore store_;
    AuditSequence queue_;
};

TEST_F(AuditTestKitTest, EventsArriveWithTheNamesOfTheSender) {
    testkit::FakeAuditService service("anna", "reading-room-1");
    record("SeriesOpened", 7);
    record("SeriesClosed", 8);
    service.forward(queue_);
    EXPECT_EQ(service.received(), (Events{{"anna", "reading-room-1", "SeriesOpened", "7"},
                                          {"anna", "reading-room-1", "SeriesClosed", "8"}}));
    EXPECT_TRUE(queueIsEmpty());
}

TEST_F(AuditTestKitTest, MoreEventsThanTheWindowHoldsGoInOneCall) {
    testkit::FakeAuditService service;
    for (int i = 0; i < 200; ++i)
        record("E", i);
    service.forward(queue_);
    EXPECT_EQ(service.received().size(), 200U);
    EXPECT_TRUE(queueIsEmpty());
}

TEST_F(AuditTestKitTest, EventsStayQueuedWhileTheConnectionIsCutAndArriveOnceAfterwards) {
    testkit::FakeAuditService service;
    record("E", 1);
    service.cut();
    service.forward(queue_);
    EXPECT_TRUE(service.received().empty());
    EXPECT_FALSE(queueIsEmpty());
    service.reconnect();
    service.forward(queue_);
    EXPECT_EQ(service.received(), (Events{{"user", "device", "E", "1"}}));
    EXPECT_TRUE(queueIsEmpty());
}

TEST_F(AuditTestKitTest, AnonymousServiceKeepsNoNames) {
    testkit::FakeAuditService service("anna", "reading-room-1", "audit", true);
    record("E", 1);
    service.forward(queue_);
    ASSERT_EQ(service.received().size(), 1U);
    EXPECT_NE(service.received()[0][0], "anna");
    EXPECT_EQ(service.received()[0][1], "***");
}

TEST(TemporaryStore, IsCurrentWhileItLivesAndGoneAfterwards) {
    std::string folder;
    {
        testkit::TemporaryStore store;
        folder = store.folder();
        EXPECT_EQ(ItemStore::current(), &store.store());
        EXPECT_TRUE(std::filesystem::exists(folder));
    }
    EXPECT_EQ(ItemStore::current(), nullptr);
    EXPECT_FALSE(std::filesystem::exists(folder));
}

}  // namespace
}  // namespace qel
