#include <filesystem>

#include "net/rpc/RpcFixture.h"

namespace qel::rpc {
namespace {

namespace fs = std::filesystem;

std::string largeText(std::size_t bytes) {
    std::string text;
    text.reserve(bytes + 32);
    for (unsigned i = 0; text.size() < bytes; ++i)
        text += "line " + std::to_string(i * 2654435761u) + "\n";
    text.resize(bytes);
    return text;
}

TEST_F(RpcTest, AFileArrivesUnderTheNameThatWasAskedFor) {
    addSending("send", "head\nline\n");
    connect();
    const RpcReply reply = call(requestFor("send", target("a.csv")));
    ASSERT_TRUE(reply) << reply.sentence;
    EXPECT_EQ(contentOf(target("a.csv")), "head\nline\n");
    ASSERT_EQ(reply.files.size(), 1u);
    EXPECT_EQ(reply.files[0].bytes, 10u);
    EXPECT_EQ(callFolders(), 0u);
    EXPECT_EQ(guard.uses.back().rows, 2u);
    EXPECT_EQ(guard.uses.back().files, 1u);
    EXPECT_EQ(guard.uses.back().bytes, 10u);
}

TEST_F(RpcTest, AnEmptyFileArrivesToo) {
    addSending("send", "");
    connect();
    ASSERT_TRUE(call(requestFor("send", target("a.csv"))));
    EXPECT_TRUE(fs::exists(target("a.csv")));
    EXPECT_EQ(fs::file_size(target("a.csv")), 0u);
}

TEST_F(RpcTest, AFileOfManyWindowsArrivesWholeWithLittleInFlight) {
    const std::string content = largeText(6 << 20);
    addSending("send", content);
    connect();
    RpcRequest request = requestFor("send", target("a.csv"));
    request.window = 256 * 1024;
    std::size_t most = 0;
    const RpcReply reply = call(request, [&] { most = std::max(most, transport->pendingToClient()); });
    ASSERT_TRUE(reply) << reply.sentence;
    EXPECT_EQ(contentOf(target("a.csv")), content);
    EXPECT_LE(most, 2u * 256 * 1024);
}

TEST_F(RpcTest, NoMoreThanTheWindowIsSentWithoutCredit) {
    serviceOptions.callSeconds = 4;
    addSending("send", largeText(4 << 20));
    connect();
    RpcRequest request = requestFor("send", target("a.csv"));
    request.window = 64 * 1024;
    bool held = false;
    std::uint64_t before = 0;
    std::uint64_t most = 0;
    const RpcReply reply = call(request, [&] {
        if (!held && bytesAtClient() > 0) {
            transport->holdToService(true);
            held = true;
            before = bytesAtClient();
        } else if (held && callFolders() != 0) {
            most = std::max(most, bytesAtClient() - before);
            transport->advance(1);
        }
    });
    EXPECT_FALSE(reply);
    EXPECT_TRUE(held);
    EXPECT_LE(most, 2u * 64 * 1024);
}

TEST_F(RpcTest, TwoFilesComeInTheirOrderAndTakeTheirNamesTogether) {
    add("both", [](const RpcContext& context) {
        String into;
        context.getArguments().decodeAsString(into);
        const String one = context.getFileTransferTargetPath("report");
        const String two = context.getFileTransferTargetPath("report");
        EXPECT_NE(one, two);
        fs::create_directory(two.c_str());
        std::ofstream(one.c_str()) << "first";
        std::ofstream((two + "/second").c_str()) << "second";
        context.initiateFileTransfer(RpcContext::transferToClient,
                                     {{into + "/1", one}, {into + "/2", two + "/second"}});
        finishAfterTransfer(context);
    });
    connect();
    RpcRequest request;
    request.name = "both";
    request.arguments.addString(folder + "/client");
    request.targets = {target("1"), target("2")};
    const RpcReply reply = call(request);
    ASSERT_TRUE(reply) << reply.sentence;
    EXPECT_EQ(contentOf(target("1")), "first");
    EXPECT_EQ(contentOf(target("2")), "second");
}

TEST_F(RpcTest, AFileThatWasNotAskedForIsRefusedAndTheHandlerLearnsIt) {
    addSending("send", "secret");
    connect();
    RpcRequest request = requestFor("send", target("a.csv"));
    request.targets = {target("b.csv")};
    const RpcReply reply = call(request);
    EXPECT_EQ(reply.error, RpcError::refusedByClient);
    EXPECT_EQ(clientFiles(), 0u);
    pumpUntil([&] { return guard.taken().size() == 1; });
}

TEST_F(RpcTest, ATargetThatCannotBeWrittenIsSaid) {
    addSending("send", "text");
    connect();
    const RpcReply reply = call(requestFor("send", folder + "/missing/a.csv"));
    EXPECT_EQ(reply.error, RpcError::cannotCreateFile);
}

TEST_F(RpcTest, ATransferThatEndedBeforeItsHandlerIsRegisteredReachesIt) {
    add("late", [](const RpcContext& context) {
        context.initiateFileTransfer(RpcContext::transferToClient, {{"x", "/etc/hostname"}});
        int code = 0;
        String status;
        EXPECT_TRUE(context.getFileTransferStatus(code, status));
        EXPECT_EQ(code, static_cast<int>(RpcTransfer::serverCannotRead));
        finishAfterTransfer(context);
    });
    connect();
    const RpcReply reply = call(requestFor("late", target("a.csv")));
    EXPECT_EQ(reply.error, RpcError::transferFailed);
    EXPECT_EQ(clientFiles(), 0u);
}

TEST_F(RpcTest, AMissingServerFileFailsTheTransfer) {
    add("send", [](const RpcContext& context) {
        const String path = context.getFileTransferTargetPath("report");
        context.initiateFileTransfer(RpcContext::transferToClient, {{"x", path}});
        finishAfterTransfer(context);
    });
    connect();
    EXPECT_EQ(call(requestFor("send", target("a.csv"))).error, RpcError::transferFailed);
}

TEST_F(RpcTest, AnotherTransferModeIsRefused) {
    add("send", [](const RpcContext& context) {
        context.initiateFileTransfer(1, {});
        finishAfterTransfer(context);
    });
    connect();
    EXPECT_EQ(call(requestFor("send", target("a.csv"))).error, RpcError::transferFailed);
}

TEST_F(RpcTest, AnAnswerWithoutTheFilesIsNoSuccess) {
    add("send", [](const RpcContext& context) {
        context.getResult().addBool(true);
        context.finish();
    });
    connect();
    EXPECT_EQ(call(requestFor("send", target("a.csv"))).error, RpcError::transferFailed);
}

TEST_F(RpcTest, WithoutATransferDirectoryNothingIsWrittenAnywhere) {
    addSending("send", "text");
    serviceOptions.directory = "";
    connect();
    EXPECT_EQ(call(requestFor("send", target("a.csv"))).error, RpcError::transferFailed);
    EXPECT_FALSE(fs::exists("/audit_export.csv"));
}

TEST_F(RpcTest, ACutAtEveryTenthLeavesNothingAtEitherEnd) {
    const std::string content = largeText(8 << 20);
    addSending("send", content);
    int whole = 0;
    for (int tenth = 0; tenth < 10; ++tenth) {
        connect();
        RpcRequest request = requestFor("send", target("a.csv"));
        request.window = 64 * 1024;
        const std::size_t notedBefore = guard.taken().size();
        const RpcReply reply = call(request, [&] {
            const std::uint64_t written = [&] {
                std::uint64_t bytes = 0;
                std::error_code fault;
                for (const auto& entry : fs::directory_iterator(folder + "/client"))
                    bytes += entry.file_size(fault);
                return bytes;
            }();
            if (written >= content.size() / 10 * static_cast<unsigned>(tenth) && clientFiles() > 0)
                transport->cut();
        });
        EXPECT_EQ(reply.error, RpcError::connectionLost) << tenth;
        // On a busy machine the cut may come after the client has confirmed the file: that one is whole and stays.
        if (fs::exists(target("a.csv"))) {
            EXPECT_EQ(contentOf(target("a.csv")), content) << tenth;
            fs::remove(target("a.csv"));
            ++whole;
        }
        EXPECT_EQ(clientFiles(), 0u) << tenth;
        pumpUntil([&] { return guard.taken().size() == notedBefore + 1; });
        pumpUntil([&] { return callFolders() == 0; });
        client.reset();
        transport.reset();
        service.reset();
    }
    EXPECT_LT(whole, 5);
    connect();
    ASSERT_TRUE(call(requestFor("send", target("a.csv"))));
    EXPECT_EQ(contentOf(target("a.csv")), content);
}

TEST_F(RpcTest, AClientThatTakesNothingIsGivenUpButOneThatIsOnlySlowIsNot) {
    serviceOptions.callSeconds = 4;
    addSending("send", largeText(4 << 20));
    connect();
    RpcRequest request = requestFor("send", target("a.csv"));
    request.window = 64 * 1024;
    // Slow: two seconds for each bit that arrives, far longer than the limit in all.
    std::uint64_t seen = 0;
    int seconds = 0;
    const RpcReply slow = call(request, [&] {
        const std::uint64_t now = bytesAtClient();
        if (now == std::exchange(seen, now))
            return;
        // No more than what is under way arrives meanwhile.
        transport->holdToClient(true);
        transport->advance(2);
        transport->holdToClient(false);
        seconds += 2;
    });
    EXPECT_TRUE(slow) << slow.sentence;
    EXPECT_GT(seconds, 6);
    // Stuck: nothing comes back from the client.
    bool held = false;
    const RpcReply stuck = call(request, [&] {
        if (!held && callFolders() == 1 && clientFiles() == 2) {
            transport->holdToService(true);
            held = true;
        }
        // Not before: the threads that make the file need their time too, however slow the machine is.
        if (held)
            transport->advance(1);
    });
    EXPECT_FALSE(stuck);
    EXPECT_TRUE(held);
}

TEST_F(RpcTest, TwoDownloadsAtOnceNeverShareAPath) {
    const std::string content = largeText(1 << 20);
    addSending("send", content);
    connect();
    RpcClient other(transport->getPeer(), "rpc");
    RpcReply second;
    std::atomic<bool> done{false};
    std::thread beside([&] {
        second = other.call(requestFor("send", target("b.csv")));
        done = true;
    });
    const RpcReply first = call(requestFor("send", target("a.csv")));
    pumpUntil([&] { return done.load(); });
    beside.join();
    ASSERT_TRUE(first) << first.sentence;
    ASSERT_TRUE(second) << second.sentence;
    EXPECT_EQ(contentOf(target("a.csv")), content);
    EXPECT_EQ(contentOf(target("b.csv")), content);
}

TEST_F(RpcTest, DownloadsGoOnWhileAllHandlerThreadsAreBusy) {
    serviceOptions.threads = 2;
    std::atomic<bool> go{false};
    std::atomic<int> busy{0};
    add("slow", [&](const RpcContext& context) {
        ++busy;
        while (!go)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        context.finish();
    });
    const std::string content = largeText(1 << 20);
    add("send", [&](const RpcContext& context) {
        String name;
        context.getArguments().decodeAsString(name);
        const String path = context.getFileTransferTargetPath("report");
        std::ofstream(path.c_str()) << content;
        context.initiateFileTransfer(RpcContext::transferToClient, {{name, path}});
        finishAfterTransfer(context);
    });
    connect();
    RpcClient others[2] = {{transport->getPeer(), "rpc"}, {transport->getPeer(), "rpc"}};
    RpcRequest slow;
    slow.name = "slow";
    std::atomic<int> ended{0};
    std::thread waiting[2];
    RpcRequest request = requestFor("send", target("a.csv"));
    request.window = 64 * 1024;
    bool started = false;
    const RpcReply reply = call(request, [&] {
        if (started || clientFiles() == 0)
            return;
        started = true;
        for (int i = 0; i < 2; ++i)
            waiting[i] = std::thread([&, i] {
                others[i].call(slow);
                ++ended;
            });
        pumpUntil([&] { return busy == 2; });
    });
    EXPECT_TRUE(started);
    EXPECT_TRUE(reply) << reply.sentence;
    EXPECT_EQ(ended, 0);
    go = true;
    pumpUntil([&] { return ended == 2; });
    for (std::thread& thread : waiting)
        thread.join();
}

}  // namespace
}  // namespace qel::rpc
