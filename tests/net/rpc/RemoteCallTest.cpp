#include <new>
#include <stdexcept>

#include "net/rpc/RpcFixture.h"

namespace qel::rpc {
namespace {

TEST_F(RpcTest, AResultComesBackWithEveryElement) {
    add("echo", [](const RpcContext& context) {
        context.getResult().concatItem(context.getArguments().asItem());
        context.finish();
    });
    connect();
    Item arguments;
    arguments.addString("text");
    arguments.addInteger(-7);
    arguments.addBool(true);
    const RpcReply reply = call("echo", arguments);
    EXPECT_TRUE(reply) << reply.sentence;
    EXPECT_EQ(reply.result, arguments);
    const auto notes = guard.taken();
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].rfind("anna@desk-1 echo 3 rows", 0), 0u) << notes[0];
}

TEST_F(RpcTest, AnUnknownCallIsSaidSo) {
    connect();
    const RpcReply reply = call("nothing");
    EXPECT_EQ(reply.error, RpcError::noSuchCall);
    EXPECT_NE(reply.sentence.find("nothing"), std::string::npos);
    EXPECT_TRUE(guard.taken().empty());
}

TEST_F(RpcTest, WhoIsNotPermittedIsLoggedWithUserDeviceAndAddress) {
    bool called = false;
    add("echo", [&](const RpcContext& context) {
        called = true;
        context.finish();
    });
    transportOptions.client = Identity::make("mallory", "laptop", {});
    connect();
    const logging::CaptureSink log;
    const RpcReply reply = call("echo");
    EXPECT_EQ(reply.error, RpcError::notPermitted);
    EXPECT_TRUE(reply.result.isEmpty());
    EXPECT_FALSE(called);
    EXPECT_TRUE(log.contains("echo is not permitted to user mallory at device laptop, address memory:1"));
    EXPECT_TRUE(guard.taken().empty());
}

TEST_F(RpcTest, AnUnfinishedCallIsEndedAndTheClientToldWhy) {
    serviceOptions.callSeconds = 5;
    add("forgets", [](const RpcContext&) {});
    connect();
    int seconds = 0;
    RpcRequest request;
    request.name = "forgets";
    const RpcReply reply = call(request, [&] {
        transport->advance(1);
        ++seconds;
    });
    EXPECT_EQ(reply.error, RpcError::notAnswered);
    EXPECT_EQ(reply.sentence.rfind("the server did not answer this call: ", 0), 0u) << reply.sentence;
    EXPECT_NE(reply.sentence.find("arguments"), std::string::npos);
    EXPECT_GE(seconds, 5);
    ASSERT_EQ(guard.taken().size(), 1u);
}

TEST_F(RpcTest, AHandlerThatWorksLongIsWaitedForAndTheClientSeesIt) {
    serviceOptions.callSeconds = 3;
    std::atomic<bool> go{false};
    add("slow", [&](const RpcContext& context) {
        while (!go)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        context.finish();
    });
    connect();
    RpcRequest request;
    request.name = "slow";
    std::atomic<std::uint64_t> seen{0};
    const RpcReply reply = call(
        request,
        [&] {
            transport->advance(1);
            if (seen >= 10)
                go = true;
        },
        [&](const RpcProgress& progress) {
            seen = progress.preparingSeconds;
            return true;
        });
    EXPECT_TRUE(reply) << reply.sentence;
    EXPECT_GE(seen, 10u);
}

TEST_F(RpcTest, AHandlerThatThrowsFailsItsCallOnly) {
    add("throws", [](const RpcContext&) { throw std::runtime_error("no paper"); });
    add("works", [](const RpcContext& context) { context.finish(); });
    connect();
    const RpcReply reply = call("throws");
    EXPECT_EQ(reply.error, RpcError::failed);
    EXPECT_NE(reply.sentence.find("no paper"), std::string::npos);
    EXPECT_TRUE(call("works"));
}

TEST_F(RpcTest, AResultOfTooManyRowsHasAnErrorOfItsOwn) {
    serviceOptions.rowsPerCall = 10;
    int rows = 10;
    add("rows", [&](const RpcContext& context) {
        Item list;
        Item row;
        row.addInteger(1);
        for (int i = 0; i < rows; ++i)
            list.addItem(row);
        context.getResult().addItem(list);
        context.finish();
    });
    connect();
    EXPECT_TRUE(call("rows"));
    EXPECT_EQ(guard.uses.back().rows, 10u);
    rows = 11;
    const RpcReply reply = call("rows");
    EXPECT_EQ(reply.error, RpcError::resultTooLarge);
    EXPECT_TRUE(reply.result.isEmpty());
    EXPECT_EQ(guard.uses.back().rows, 0u);
}

TEST_F(RpcTest, TheGuardCanRefuseALargeResultBeforeItIsMade) {
    bool called = false;
    add("rows", [&](const RpcContext& context) {
        called = true;
        context.finish();
    });
    connect();
    guard.refusal = "there are five million rows";
    const RpcReply reply = call("rows");
    EXPECT_EQ(reply.error, RpcError::resultTooLarge);
    EXPECT_EQ(reply.sentence, "there are five million rows");
    EXPECT_FALSE(called);
}

TEST_F(RpcTest, AResultThatNoItemOrNoMemoryHoldsIsTooLarge) {
    add("long", [](const RpcContext&) { throw std::length_error("an item cannot hold more"); });
    add("starved", [](const RpcContext&) { throw std::bad_alloc(); });
    connect();
    for (const char* name : {"long", "starved"}) {
        const RpcReply reply = call(name);
        EXPECT_EQ(reply.error, RpcError::resultTooLarge) << name;
        EXPECT_NE(reply.sentence.find("ask for less at a time"), std::string::npos) << reply.sentence;
    }
    EXPECT_EQ(service->getStatistics().tooLarge, 2u);
}

TEST_F(RpcTest, AResultLargerThanAFrameAndItsWindowComesWhole) {
    const std::string text(300000, '\0');
    add("large", [&](const RpcContext& context) {
        for (int i = 0; i < 20; ++i)
            context.getResult().addString(text);
        context.finish();
    });
    connect();
    RpcRequest request;
    request.name = "large";
    request.window = 64 * 1024;
    const RpcReply reply = call(request);
    ASSERT_TRUE(reply) << reply.sentence;
    Item::Iterator elements(reply.result);
    String element;
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(elements.decodeElementAsString(element));
        ASSERT_EQ(element, text);
    }
    EXPECT_TRUE(elements.atEnd());
}

TEST_F(RpcTest, AResultLargerThanTheClientTakesIsRefusedByIt) {
    add("large", [](const RpcContext& context) {
        context.getResult().addString(std::string(100000, 'x'));
        context.finish();
    });
    connect();
    RpcRequest request;
    request.name = "large";
    request.largestResult = 5000;
    EXPECT_EQ(call(request).error, RpcError::refusedByClient);
    EXPECT_TRUE(call("large"));
}

TEST_F(RpcTest, TheServiceCountsWhatItsCallsCameTo) {
    serviceOptions.callSeconds = 2;
    add("forgets", [](const RpcContext&) {});
    addSending("send", "four");
    connect();
    ASSERT_TRUE(call(requestFor("send", target("a.csv"))));
    guard.refusal = "too many";
    EXPECT_EQ(call("forgets").error, RpcError::resultTooLarge);
    guard.refusal.clear();
    RpcRequest request;
    request.name = "forgets";
    EXPECT_EQ(call(request, [&] { transport->advance(1); }).error, RpcError::notAnswered);
    pumpUntil([&] { return service->getStatistics().openCalls == 0; });
    const RpcStatistics figures = service->getStatistics();
    EXPECT_EQ(figures.calls, 3u);
    EXPECT_EQ(figures.tooLarge, 1u);
    EXPECT_EQ(figures.notAnswered, 1u);
    EXPECT_EQ(figures.notPermitted, 0u);
    EXPECT_EQ(figures.fileBytes, 4u);
}

TEST_F(RpcTest, ALostConnectionEndsTheWaitAndTheCallIsStillNoted) {
    std::atomic<bool> go{false};
    std::atomic<bool> begun{false};
    add("slow", [&](const RpcContext& context) {
        begun = true;
        while (!go)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        context.finish();
    });
    connect();
    EXPECT_EQ(callCutOnce(begun).error, RpcError::connectionLost);
    EXPECT_TRUE(guard.taken().empty());
    go = true;
    pumpUntil([&] { return guard.taken().size() == 1; });
}

TEST_F(RpcTest, AHandlerCanSeeThatItsCallerHasGone) {
    std::atomic<bool> begun{false};
    std::atomic<int> lastCode{0};
    add("slow", [&](const RpcContext& context) {
        int code = 0;
        String status;
        while (!context.getFileTransferStatus(code, status)) {
            begun = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        lastCode = code;
    });
    connect();
    EXPECT_EQ(callCutOnce(begun).error, RpcError::connectionLost);
    pumpUntil([&] { return guard.taken().size() == 1; });
    EXPECT_EQ(lastCode, static_cast<int>(RpcTransfer::connectionLost));
}

TEST_F(RpcTest, ACancelledCallEndsAtOnce) {
    add("forgets", [](const RpcContext&) {});
    add("works", [](const RpcContext& context) { context.finish(); });
    connect();
    RpcRequest request;
    request.name = "forgets";
    const RpcReply reply = call(request, {}, [](const RpcProgress&) { return false; });
    EXPECT_EQ(reply.error, RpcError::cancelled);
    pumpUntil([&] { return guard.taken().size() == 1; });
    EXPECT_TRUE(call("works"));
}

TEST_F(RpcTest, MoreCallsThanMayWaitAreToldBusy) {
    serviceOptions.threads = 1;
    serviceOptions.waitingCalls = 1;
    std::atomic<bool> go{false};
    std::atomic<int> begun{0};
    add("slow", [&](const RpcContext& context) {
        ++begun;
        while (!go)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        context.finish();
    });
    connect();
    RpcClient second(transport->getPeer(), "rpc");
    RpcClient third(transport->getPeer(), "rpc");
    RpcRequest request;
    request.name = "slow";
    RpcReply replies[2];
    std::thread first([&] { replies[0] = second.call(request); });
    pumpUntil([&] { return begun == 1; });
    std::atomic<int> answers{0};
    std::thread others([&] {
        replies[1] = third.call(request);
        ++answers;
    });
    const RpcReply reply = call(request, [&] {
        if (answers > 0)
            go = true;
    });
    go = true;
    pumpUntil([&] { return answers == 1; });
    first.join();
    others.join();
    const int busy = (reply.error == RpcError::busy ? 1 : 0) + (replies[1].error == RpcError::busy ? 1 : 0);
    EXPECT_EQ(busy, 1);
    EXPECT_TRUE(replies[0]);
}

TEST_F(RpcTest, FinishFromAnotherThreadAfterTheHandlerReturnedAnswers) {
    std::thread later;
    add("later", [&](const RpcContext& context) {
        later = std::thread([&context] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            context.getResult().addInteger(5);
            context.finish();
        });
    });
    connect();
    const RpcReply reply = call("later");
    later.join();
    ASSERT_TRUE(reply) << reply.sentence;
    long long value = 0;
    EXPECT_TRUE(reply.result.decodeElementAsInteger(value));
    EXPECT_EQ(value, 5);
}

}  // namespace
}  // namespace qel::rpc
