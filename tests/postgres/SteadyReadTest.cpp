#include "storage/PostgresEngine.h"

#include <thread>

#include "postgres/PostgresFixture.h"
#include "qelCore/logging/CaptureSink.h"

using namespace qel;
using namespace qel::test;

TEST(Postgres, SteadyReadIsOfOneMoment) {
    const std::string url = freshUrl();
    const auto store = openStore(url);
    const auto other = openStore(url);
    const Item log = path("log");
    const auto fill = [&](ItemStore& to, long long from, long long count, const char* value) {
        WriteBatch batch(&to);
        for (long long i = from; i < from + count; ++i)
            ASSERT_TRUE(to.store(key(log, i), text(value).bytes()));
        ASSERT_TRUE(batch.commit().durable);
    };
    const auto count = [&](std::string_view value) {
        int found = 0;
        Item at;
        for (bool more = store->child(log, at); more; more = store->next(at))
            found += valueAt(*store, at) == encoded(value) ? 1 : 0;
        return found;
    };
    fill(*store, 0, 20000, "old");
    {
        const SteadyRead moment(store.get());
        Item at;
        ASSERT_TRUE(store->child(log, at));
        fill(*other, 10000, 5000, "new");
        fill(*store, 20000, 5000, "new");
        ASSERT_TRUE(other->remove(key(log, 19999)));
        std::this_thread::sleep_for(2 * storage::PostgresCursor::maxAge);
        {
            const SteadyRead joined(store.get());
            EXPECT_EQ(count("old"), 20000);
        }
        EXPECT_EQ(count("new"), 0);
        EXPECT_EQ(valueAt(*store, key(log, 10000)), encoded("old"));
        EXPECT_TRUE(moment.result().durable);
    }
    EXPECT_EQ(count("new"), 10000);
    EXPECT_EQ(count("old"), 14999);
}

TEST(Postgres, SteadyReadWhoseSnapshotIsLostEndsInsteadOfMixing) {
    logging::CaptureSink captured;
    const auto store = openStore(freshUrl());
    const Item log = path("log");
    {
        WriteBatch batch(store.get());
        for (long long i = 0; i < 20000; ++i)
            ASSERT_TRUE(store->store(key(log, i), text("v").bytes()));
        ASSERT_TRUE(batch.commit().durable);
    }
    {
        const SteadyRead moment(store.get());
        Item at;
        ASSERT_TRUE(store->child(log, at));
        terminateAll();
        int found = 1;
        while (store->next(at))
            ++found;
        EXPECT_LT(found, 20000);
        EXPECT_FALSE(store->child(log, at)) << "another snapshot would be of another moment";
        EXPECT_NE(moment.result().reason.find("could not be read to its end"), std::string::npos);
        EXPECT_TRUE(captured.contains("lost the snapshot"));
    }
    Item at;
    EXPECT_TRUE(store->child(log, at));
}

TEST(Postgres, SteadyReadOverLargeValuesKeepsItsSnapshot) {
    const auto store = openStore(freshUrl());
    const Item log = path("log");
    {
        WriteBatch batch(store.get());
        for (long long i = 0; i < 3000; ++i)
            ASSERT_TRUE(store->store(key(log, i), text("small").bytes()));
        for (long long i = 3000; i < 3040; ++i)
            ASSERT_TRUE(store->store(key(log, i), text(std::string(900000, 'x')).bytes()));
        ASSERT_TRUE(batch.commit().durable);
    }
    const SteadyRead moment(store.get());
    Item at;
    int found = 0;
    for (bool more = store->child(log, at); more; more = store->next(at))
        ++found;
    EXPECT_EQ(found, 3040);
    EXPECT_TRUE(moment.result().durable);
}
