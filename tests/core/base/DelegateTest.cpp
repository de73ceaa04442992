#include "qelCore/Delegate.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "qelCore/List.h"
#include "qelCore/String.h"

namespace qel {
namespace {

using Groups = Delegate<List<String>(const String&)>;

struct Directory : Object {
    List<String> groupsOf(const String& user) { return {prefix + user}; }
    String prefix = "group of ";
};

TEST(Delegate, UnboundReturnsAnEmptyValue) {
    const Groups groups;
    EXPECT_FALSE(groups.isConnected());
    EXPECT_TRUE(groups("anna").empty());
    EXPECT_EQ(Delegate<int(int)>()(7), 0);
    Delegate<void()>()();
}

TEST(Delegate, IsAnObject) {
    EXPECT_STREQ(Groups().getDynamicClassName(), "Delegate");
    EXPECT_STREQ(Groups::getStaticClassChain()[0], "Object");
    EXPECT_STREQ(Groups::getStaticClassChain()[1], "Delegate");
    EXPECT_EQ(Groups::getStaticClassChain()[2], nullptr);
}

TEST(Delegate, AsksAFunctionObject) {
    Groups groups;
    groups.connect([](const String& user) { return List<String>{user, "all"}; });
    EXPECT_EQ(groups("anna"), (List<String>{"anna", "all"}));
}

TEST(Delegate, AsksAMethod) {
    Directory directory;
    Groups groups;
    groups.connect(directory, &Directory::groupsOf);
    EXPECT_EQ(groups("anna"), List<String>{"group of anna"});
}

TEST(Delegate, KeepsTheObjectOfAReference) {
    Ref<Directory> directory = makeRef<Directory>();
    Groups groups;
    groups.connect(directory, &Directory::groupsOf);
    EXPECT_EQ(directory->getReferenceCount(), 2);
    Directory* const raw = directory.get();
    directory.reset();
    EXPECT_EQ(groups("anna"), List<String>{"group of anna"});
    EXPECT_EQ(raw->getReferenceCount(), 1);
}

TEST(Delegate, ReleasesItsTargetWithItself) {
    const auto held = std::make_shared<int>(1);
    {
        Delegate<int()> delegate;
        delegate.connect([held] { return *held; });
        EXPECT_EQ(held.use_count(), 2);
        EXPECT_EQ(delegate(), 1);
    }
    EXPECT_EQ(held.use_count(), 1);
}

TEST(Delegate, ConnectingAgainReplacesAndDisconnectingUnbinds) {
    const auto held = std::make_shared<int>(1);
    Delegate<int()> delegate;
    delegate.connect([held] { return *held; });
    delegate.connect([] { return 2; });
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(delegate(), 2);
    delegate.disconnect();
    EXPECT_EQ(delegate(), 0);
}

TEST(Delegate, CopySharesTheTarget) {
    Delegate<int()> delegate;
    delegate.connect([count = 0]() mutable { return ++count; });
    const Delegate<int()> copy = delegate;
    EXPECT_EQ(delegate(), 1);
    EXPECT_EQ(copy(), 2);
}

TEST(Delegate, TargetMayReplaceItselfWhileItRuns) {
    Delegate<int()> delegate;
    const auto held = std::make_shared<int>(5);
    delegate.connect([&delegate, held] {
        delegate.connect([] { return 6; });
        return *held;
    });
    EXPECT_EQ(delegate(), 5);
    EXPECT_EQ(delegate(), 6);
}

TEST(Delegate, TakesArgumentsByReferenceAndByMove) {
    Delegate<void(int&, std::unique_ptr<int>)> delegate;
    delegate.connect([](int& out, std::unique_ptr<int> in) { out = *in; });
    int value = 0;
    delegate(value, std::make_unique<int>(9));
    EXPECT_EQ(value, 9);
}

}  // namespace
}  // namespace qel
