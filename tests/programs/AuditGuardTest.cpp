#include "auditd/AuditGuard.h"

#include <gtest/gtest.h>

#include "auditing/AuditExport.h"
#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {
namespace {

class AuditGuardTest : public testing::Test {
  protected:
    AuditGuardTest() {
        std::string reason;
        store = ItemStore::open("lmdb:" + folder.path(), {}, reason);
        ItemStore::setCurrent(store.get());
        trail.addString("audit");
        interaction.addString("interaction");
        lines.group = "Auditing";
        lines.name = "get_audit_log";
        download.group = "Auditing";
        download.name = "download_audit_report";
        anna.identity = Identity::make("anna", "desk-1", SiteKey());
        anna.address = "10.0.0.1:5";
    }
    ~AuditGuardTest() override { ItemStore::setCurrent(nullptr); }

    static Item range(long long logType, long long start, long long end) {
        Item made;
        made.addInteger(logType);
        made.addInteger(start);
        made.addInteger(end);
        return made;
    }
    void addEvent(long long time) const {
        Item inner;
        inner.addInteger(time);
        inner.addInteger(1);
        Item key(interaction);
        key.addItem(inner);
        Item value;
        value.addString("u");
        key.store(value);
    }
    /// The last line of the trail.
    std::string trace() const {
        Item position(trail);
        Item found;
        if (!position.child(found))
            return "nothing";
        while (found.next()) {
        }
        Item value;
        value.setPlain(found.fetch());
        return value.asString().str();
    }

    test::TemporaryFolder folder;
    std::unique_ptr<ItemStore> store;
    Item trail;
    Item interaction;
    RpcProvider::Call lines;
    RpcProvider::Call download;
    RpcCaller anna;
};

TEST_F(AuditGuardTest, OnlyListedUsersMayCallAndOnlyTheGroup) {
    AuditGuard guard({trail, interaction, false}, {"anna"});
    EXPECT_TRUE(guard.permits(anna, lines));
    RpcCaller other = anna;
    other.identity.user = "Anna";
    EXPECT_FALSE(guard.permits(other, lines));
    RpcProvider::Call foreign;
    foreign.group = "Other";
    EXPECT_FALSE(guard.permits(anna, foreign));
    guard.setAuditors({});
    EXPECT_FALSE(guard.permits(anna, lines));
}

TEST_F(AuditGuardTest, LinesAreCountedWithTheEndExcluded) {
    for (int i = 0; i < 5; ++i)
        addEvent(100 + i);
    AuditGuard guard({trail, interaction, false}, {"anna"});
    EXPECT_EQ(guard.examine(anna, lines, range(1, 100, 105), 5), "");
    EXPECT_NE(guard.examine(anna, lines, range(1, 100, 105), 4), "");
    EXPECT_EQ(guard.examine(anna, lines, range(1, 100, 104), 4), "");
    EXPECT_EQ(guard.examine(anna, lines, range(1, 105, 100), 0), "");
    EXPECT_EQ(guard.examine(anna, lines, range(2, 100, 105), 0), "");
    EXPECT_EQ(guard.examine(anna, download, range(1, 100, 105), 0), "");
}

TEST_F(AuditGuardTest, ATraceTellsWhatWasAskedAndGiven) {
    AuditGuard guard({trail, interaction, false}, {"anna"});
    guard.used(anna, lines, range(1, 100, 105), {5, 700, 0, RpcError::none});
    EXPECT_EQ(trace(),
              "[\"anna\",\"desk-1\",\"AuditLogUsed\",\"get_audit_log\",\"interaction\",100,105,5,700]");
    Item arguments;
    arguments.addString("/into");
    arguments.addItem(range(0, 1, 2));
    arguments.addBool(true);
    guard.used(anna, download, arguments, {12, 900, 2, RpcError::none});
    EXPECT_EQ(trace(),
              "[\"anna\",\"desk-1\",\"AuditLogUsed\",\"download_audit_report\",\"both\",1,2,10,900]");
    guard.used(anna, download, Item(), {0, 0, 0, RpcError::notAnswered});
    EXPECT_EQ(trace(), "[\"anna\",\"desk-1\",\"AuditLogUsed\",\"download_audit_report\",\"\",0,0,0,0]");
}

TEST_F(AuditGuardTest, AnAnonymousTrailHoldsNoName) {
    AuditGuard guard({trail, interaction, true}, {"anna"});
    guard.used(anna, lines, range(0, 100, 105), {5, 700, 0, RpcError::none});
    EXPECT_EQ(trace().find("anna"), std::string::npos);
    EXPECT_EQ(trace().find("desk"), std::string::npos);
    EXPECT_NE(trace().find("\"***\",\"AuditLogUsed\""), std::string::npos) << trace();
}

}  // namespace
}  // namespace qel::programs
