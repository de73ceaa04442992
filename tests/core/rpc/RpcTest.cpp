#include <gtest/gtest.h>

#include "qelCore/RpcContext.h"
#include "qelCore/RpcProvider.h"
#include "support/TestRpcContext.h"

namespace qel {
namespace {

Item someArguments() {
    Item filter;
    filter.addInteger(1);
    Item arguments;
    arguments.addString("/target");
    arguments.addItem(filter);
    arguments.addBool(true);
    arguments.addInteger(7);
    arguments.addInteger(1700000000000000);
    return arguments;
}

TEST(RpcArguments, DecodeInOrder) {
    RpcArguments arguments(someArguments());
    String text;
    Item filter;
    bool flag = false;
    int small = 0;
    long long large = 0;
    EXPECT_TRUE(arguments.decodeAsString(text) && arguments.decodeAsItem(filter) &&
                arguments.decodeAsBool(flag) && arguments.decodeAsInteger(small) &&
                arguments.decodeAsInteger(large));
    EXPECT_EQ(text, "/target");
    EXPECT_EQ(filter.asString(), "[1]");
    EXPECT_TRUE(flag);
    EXPECT_EQ(small, 7);
    EXPECT_EQ(large, 1700000000000000);
}

TEST(RpcArguments, WrongTypeIsFalseAndStays) {
    RpcArguments arguments(someArguments());
    bool flag = false;
    int number = 0;
    Item item;
    String text;
    EXPECT_FALSE(arguments.decodeAsBool(flag));
    EXPECT_FALSE(arguments.decodeAsInteger(number));
    EXPECT_FALSE(arguments.decodeAsItem(item));
    EXPECT_TRUE(arguments.decodeAsString(text));
}

TEST(RpcArguments, MissingIsFalse) {
    RpcArguments arguments;
    String text;
    bool flag = false;
    EXPECT_FALSE(arguments.decodeAsString(text));
    EXPECT_FALSE(arguments.decodeAsBool(flag));
}

TEST(RpcArguments, NumberBeyond32BitsIsNoInt) {
    Item item;
    item.addInteger(4294967296);
    RpcArguments arguments(item);
    int number = 3;
    long long large = 0;
    EXPECT_FALSE(arguments.decodeAsInteger(number));
    EXPECT_EQ(number, 3);
    EXPECT_TRUE(arguments.decodeAsInteger(large));
}

TEST(RpcArguments, CopyOwnsItsBytesAndBeginsAgain) {
    RpcArguments copy;
    {
        RpcArguments arguments(someArguments());
        String text;
        arguments.decodeAsString(text);
        copy = arguments;
    }
    String text;
    EXPECT_TRUE(copy.decodeAsString(text));
    EXPECT_EQ(text, "/target");
    EXPECT_EQ(copy.asItem().asString(), someArguments().asString());
}

TEST(RpcContext, TellsCallAndCaller) {
    const test::TestRpcContext context("get_audit_log", someArguments());
    EXPECT_EQ(context.getName(), "get_audit_log");
    EXPECT_EQ(context.getUser(), "auditor");
    EXPECT_EQ(context.getDevice(), "desk");
    String text;
    EXPECT_TRUE(context.getArguments().decodeAsString(text));
}

TEST(RpcContext, FinishSendsTheResultOnce) {
    const test::TestRpcContext context("call", Item());
    context.getResult().addBool(true);
    EXPECT_FALSE(context.isFinished());
    context.finish();
    context.getResult().addBool(true);
    context.finish();
    EXPECT_TRUE(context.isFinished());
    ASSERT_EQ(context.results().size(), 1U);
    EXPECT_EQ(context.results()[0].asString(), "[true]");
}

TEST(RpcProvider, FindsWhatWasAddedWithItsGroupAndTexts) {
    RpcProvider provider;
    provider.groupName = "Auditing";
    provider.addRPC(
        "get_audit_log", [](const RpcContext& context) { context.finish(); }, "(Int logType)", "Get it.");
    provider.groupName = nullptr;
    provider.addRPC(
        "other", [](const RpcContext&) {}, "()", "");
    const auto call = provider.find("get_audit_log");
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(call->group, "Auditing");
    EXPECT_EQ(call->name, "get_audit_log");
    EXPECT_EQ(call->signature, "(Int logType)");
    EXPECT_EQ(call->description, "Get it.");
    EXPECT_EQ(provider.find("other")->group, "");
    EXPECT_EQ(provider.getCalls().size(), 2U);
    const test::TestRpcContext context("get_audit_log", Item());
    call->handler(context);
    EXPECT_TRUE(context.isFinished());
}

TEST(RpcProvider, UnknownNameIsNull) {
    const RpcProvider provider;
    EXPECT_EQ(provider.find("x"), nullptr);
    EXPECT_EQ(provider.find(nullptr), nullptr);
}

TEST(RpcProvider, HeldCallSurvivesItsReplacement) {
    RpcProvider provider;
    int asked = 0;
    provider.addRPC(
        "call", [&asked](const RpcContext&) { asked = 1; }, "old", "");
    const auto held = provider.find("call");
    provider.addRPC(
        "call", [&asked](const RpcContext&) { asked = 2; }, "new", "");
    const test::TestRpcContext context("call", Item());
    held->handler(context);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(provider.find("call")->signature, "new");
    EXPECT_EQ(provider.getCalls().size(), 1U);
}

}  // namespace
}  // namespace qel
