#include "storage/PostgresEngine.h"

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "postgres/PostgresFixture.h"
#include "qelCore/StoreTools.h"
#include "support/KeepingGuard.h"

using namespace qel;
using namespace qel::test;

TEST(Postgres, SiteKeyOfAnotherSiteIsRefusedByEveryDaemon) {
    const std::string url = freshUrl();
    std::string reason;
    const auto one = openStore(url);
    const auto other = openStore(url);
    ASSERT_TRUE(one->bindSiteKey("aa", reason)) << reason;
    EXPECT_FALSE(other->bindSiteKey("bb", reason));
    EXPECT_TRUE(has(reason, "belongs to the site key aa"));
    EXPECT_TRUE(other->bindSiteKey("aa", reason));
}

TEST(Postgres, DaemonsThatStartAtOnceAgreeOnOneSiteKey) {
    const std::string url = freshUrl();
    std::atomic<int> bound{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            std::string reason;
            const auto store = openStore(url);
            bound += store->bindSiteKey("site " + std::to_string(i), reason) ? 1 : 0;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(bound, 1);
}

TEST(Postgres, OtherContentOfAnotherDaemonIsKeptAlsoWhenItCameAMomentAgo) {
    const std::string url = freshUrl();
    const auto one = openStore(url);
    const auto other = openStore(url);
    const auto guard = std::make_shared<KeepingGuard>();
    for (long long i = 0; i < 20; ++i) {
        const Item at = key(path("log"), i);
        EXPECT_TRUE(one->fetch(at).isNull());
        EXPECT_TRUE(other->fetch(at).isNull());
        ASSERT_TRUE(one->store(at, text("one").bytes(), guard));
        ASSERT_TRUE(other->store(at, text("other").bytes(), guard));
        ASSERT_EQ(valueAt(*other, at), encoded("other"));
        ASSERT_EQ(valueAt(*other, key(path("kept"), i)), encoded("one"));
        ASSERT_TRUE(one->store(at, text("other").bytes(), guard));
    }
    std::string expected;
    for (int i = 0; i < 20; ++i)
        expected += "replaced repeated ";
    EXPECT_EQ(guard->told(), expected);
}

TEST(Postgres, NothingVanishesWhenTwoDaemonsWriteOtherContentAtOneMoment) {
    const std::string url = freshUrl();
    const auto one = openStore(url);
    const auto other = openStore(url);
    const auto fill = [](ItemStore& store, const std::string& name) {
        const auto guard = std::make_shared<KeepingGuard>(path("kept by " + name));
        for (int round = 0; round < 10; ++round) {
            WriteBatch batch(&store);
            for (long long i = 0; i < 100; ++i)
                store.store(key(path("log"), i), text(name + " " + std::to_string(round)).bytes(), guard);
            ASSERT_TRUE(batch.commit().durable);
        }
    };
    std::thread first([&] { fill(*one, "one"); });
    std::thread second([&] { fill(*other, "other"); });
    first.join();
    second.join();
    // Of each key there were twenty contents; nineteen are kept, one stands.
    const auto third = openStore(url);
    std::map<std::string, int> found;
    Item at;
    while (third->nextKey(at))
        ++found[valueAt(*third, at)];
    EXPECT_EQ(found.size(), 20U);
    for (const auto& [value, count] : found)
        EXPECT_EQ(count, 100) << value;
}

TEST(Postgres, APlaceForWhatIsKeptThatIsTakenIsNotOverwritten) {
    const std::string url = freshUrl();
    const auto one = openStore(url);
    const auto other = openStore(url);
    // Both would keep under ["kept", 0].
    const auto ones = std::make_shared<KeepingGuard>();
    const auto others = std::make_shared<KeepingGuard>();
    ASSERT_TRUE(one->store(path("a"), text("a1").bytes(), ones));
    ASSERT_TRUE(one->store(path("a"), text("a2").bytes(), ones));
    ASSERT_TRUE(other->store(path("b"), text("b1").bytes(), others));
    ASSERT_TRUE(other->store(path("b"), text("b2").bytes(), others));
    EXPECT_EQ(valueAt(*other, key(path("kept"), 0)), encoded("a1"));
    EXPECT_EQ(valueAt(*other, key(path("kept"), 1)), encoded("b1"));
    EXPECT_EQ(valueAt(*other, path("b")), encoded("b2"));
}

TEST(Postgres, WhatAnotherDaemonCommitsIsSeenSoon) {
    const std::string url = freshUrl();
    const auto one = openStore(url);
    const auto other = openStore(url);
    EXPECT_TRUE(one->fetch(path("key")).isNull());
    ASSERT_TRUE(other->store(path("key"), text("theirs").bytes()));
    EXPECT_TRUE(waitFor([&] { return valueAt(*one, path("key")) == encoded("theirs"); }));
    // And what a daemon commits itself at once, however fresh its page is.
    for (int i = 0; i < 50; ++i) {
        const std::string value = std::to_string(i);
        ASSERT_TRUE(one->store(path("key"), text(value).bytes()));
        ASSERT_EQ(valueAt(*one, path("key")), encoded(value));
    }
}

TEST(Postgres, DaemonsThatWriteTheSameKeysNeitherFailNorBlock) {
    const std::string url = freshUrl();
    const auto one = openStore(url);
    const auto other = openStore(url);
    const auto fill = [](ItemStore& store, int seed) {
        for (int round = 0; round < 15; ++round) {
            WriteBatch batch(&store);
            for (int i = 0; i < 200; ++i)
                store.store(key(path("log"), (i * 37 + seed * round) % 300), text("same").bytes());
            ASSERT_TRUE(batch.commit().durable);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] { fill(*one, 2 * i + 1); });
        threads.emplace_back([&, i] { fill(*other, 2 * i + 2); });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(one->statistics().failedCommits + other->statistics().failedCommits, 0U);
    const auto third = openStore(url);
    EXPECT_EQ(StoreTools::verify(*third, {}).entries, 300U);
}
