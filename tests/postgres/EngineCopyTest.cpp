#include "storage/PostgresEngine.h"

#include "postgres/PostgresFixture.h"
#include "qelCore/StoreTools.h"
#include "qelCore/logging/CaptureSink.h"

using namespace qel;
using namespace qel::test;

namespace {

/// An embedded store with so many entries below "log".
std::unique_ptr<ItemStore> openFilled(const std::string& folder, long long count) {
    auto store = openStore("lmdb:" + folder);
    WriteBatch batch(store.get());
    for (long long i = 0; i < count; ++i)
        EXPECT_TRUE(store->store(key(path("log"), i), text(std::to_string(i)).bytes()));
    EXPECT_TRUE(batch.commit().durable);
    return store;
}

}  // namespace

TEST(Postgres, EntriesMoveBetweenTheEngines) {
    const TemporaryFolder folder;
    const auto embedded = openFilled(folder / "store", 20000);
    std::string reason;
    ASSERT_TRUE(embedded->bindSiteKey("aa", reason));
    const auto shared = openStore(freshUrl());
    const StoreTools::CopyOutcome there = StoreTools::copy(*embedded, *shared);
    EXPECT_TRUE(there.result.durable);
    EXPECT_TRUE(there.isSame());
    EXPECT_EQ(shared->identity().siteKeyFingerprint, "aa");
    const auto back = openStore("lmdb:" + (folder / "back"));
    const StoreTools::CopyOutcome outcome = StoreTools::copy(*shared, *back);
    EXPECT_TRUE(outcome.result.durable);
    EXPECT_TRUE(outcome.isSame());
    EXPECT_EQ(outcome.entries, 20000U);
    // Through the database and back, nothing is different.
    const StoreTools::CopyOutcome compared = StoreTools::copy(*embedded, *back);
    EXPECT_TRUE(compared.isSame());
    EXPECT_EQ(compared.added, 0U);
    EXPECT_EQ(compared.checksum, there.checksum);
}

TEST(Postgres, ACopyWhoseDatabaseVanishesSaysSoAndGoesOnLater) {
    logging::CaptureSink log;
    const TemporaryFolder folder;
    const auto embedded = openFilled(folder / "store", 40000);
    PostgresServer server;
    StoreOptions options;
    options.patienceMilliseconds = 2000;
    for (const bool isTarget : {true, false}) {
        const auto shared = openStore(server.storeUrl("vanishes"), options);
        const auto other = isTarget ? nullptr : openStore("lmdb:" + (folder / "back"));
        ItemStore& from = isTarget ? *embedded : *shared;
        ItemStore& to = isTarget ? *shared : *other;
        const StoreTools::CopyOutcome failed = StoreTools::copy(from, to, {}, [&](std::uint64_t done) {
            if (done < 20000)
                server.kill();
            return true;
        });
        EXPECT_FALSE(failed.result.durable);
        EXPECT_FALSE(failed.result.reason.empty());
        EXPECT_FALSE(shared->statistics().reachable);
        server.start();
        ASSERT_TRUE(waitFor([&] { return shared->probeCommit().durable; }));
        const StoreTools::CopyOutcome done = StoreTools::copy(from, to);
        EXPECT_TRUE(done.result.durable) << done.result.reason;
        EXPECT_TRUE(done.resumed);
        EXPECT_EQ(done.added, 40000U - failed.added);
        EXPECT_TRUE(done.isSame());
    }
}
