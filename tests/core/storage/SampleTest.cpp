// Reads a store that an earlier version wrote, from a file kept in the repository: later versions must go on reading it.
// Its site is "Klinik Nord", with a hundred central events, ten queued ones and one kept aside.
#include "qelCore/StoreTools.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

class Sample : public StoreTest {
  protected:
    void SetUp() override {
        const std::string file = std::string(QEL_SOURCE_DIR) + "/tests/samples/store-format-1.mdb";
        const CommitResult restored = StoreTools::restore(file, folder_ / "store");
        ASSERT_TRUE(restored.durable) << restored.reason;
        reopen();
    }
};

}  // namespace

TEST_F(Sample, FormatOneIsRead) {
    const StoreIdentity identity = store_->identity();
    EXPECT_EQ(identity.format, 1);
    EXPECT_EQ(identity.site, "Klinik Nord");
    EXPECT_EQ(identity.siteKeyFingerprint, "0011223344556677");
    ASSERT_EQ(store_->logs().size(), 2U);
    StoreLog interaction;
    StoreLog queue;
    ASSERT_TRUE(store_->findLog("interaction", interaction));
    ASSERT_TRUE(store_->findLog("queue", queue));
    EXPECT_EQ(interaction.path.asString(), "[\"audit\",\"interaction\"]");
    EXPECT_EQ(queue.kind, StoreLog::Kind::queue);
    EXPECT_TRUE(queue.anonymous);
    int count = 0;
    Item at;
    for (bool found = interaction.path.child(at); found; found = at.next(), ++count) {
        Item moment;
        long long time = 0;
        long long origin = 0;
        ASSERT_TRUE(at.trail().decodeElementAsItem(moment));
        Item::Iterator parts(moment);
        ASSERT_TRUE(parts.decodeElementAsInteger(time) && parts.decodeElementAsInteger(origin) &&
                    parts.atEnd());
        EXPECT_EQ(time, 1760000000000000 + count * 1000000LL);
        EXPECT_EQ(origin, 0xcafebabeLL);
        Item value;
        value.setPlain(at.fetch());
        EXPECT_EQ(value.asString().str(), "[\"user" + std::to_string(count % 3) +
                                              "\",\"device\",\"SeriesOpened\"," + std::to_string(-count) +
                                              (count % 2 == 0 ? ",true" : ",false") + ",\"\xc3\xbc;\\n\"]");
    }
    EXPECT_EQ(count, 100);
    int queued = 0;
    for (bool found = queue.path.child(at); found; found = at.next(), ++queued) {
        Item value;
        value.setPlain(at.fetch());
        EXPECT_EQ(value.asString().str(), "[\"Event\",0x000102,[" + std::to_string(queued) + "]]");
    }
    EXPECT_EQ(queued, 10);
    EXPECT_EQ(read(key(ItemStore::sidePath("aside"), 1)), "kept");
    EXPECT_EQ(StoreTools::verify(*store_, {}).faults, 0U);
}

TEST_F(Sample, AStoreOfFormatOneIsWrittenOn) {
    write(path("new"), "v");
    reopen();
    EXPECT_EQ(read(path("new")), "v");
}
