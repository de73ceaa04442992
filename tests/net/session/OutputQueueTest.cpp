#include "session/OutputQueue.h"

#include <gtest/gtest.h>

#include "wire/Frame.h"

namespace qel {
namespace {

std::string frame(char mark, std::size_t bytes) {
    std::string text;
    FrameWriter(text, FrameKind::packet).bytes(std::string(bytes, mark)).finish();
    return text;
}

OutputQueue::Lane makeLane() {
    return std::make_shared<OutputLane>();
}

std::string takeAll(OutputQueue& queue, std::size_t most) {
    std::string all;
    std::string chunk;
    while (queue.take(chunk, most)) {
        all += chunk;
        chunk.clear();
    }
    return all;
}

TEST(OutputQueue, AcknowledgementsDoNotWaitBehindAFile) {
    OutputQueue queue;
    const auto file = makeLane();
    const auto answers = makeLane();
    for (int i = 0; i < 20; ++i)
        queue.add(file, frame('f', 30000));
    queue.add(answers, frame('a', 10));
    const std::string all = takeAll(queue, 16384);
    EXPECT_EQ(all.size(), 20 * 30005u + 15u);
    EXPECT_LT(all.find("aaaaaaaaaa"), 2 * 30005u);
}

TEST(OutputQueue, FramesOfOneSessionKeepTheirOrderAndLeaveTogether) {
    OutputQueue queue;
    const auto lane = makeLane();
    std::string expected;
    for (char mark = 'a'; mark <= 'z'; ++mark) {
        queue.add(lane, frame(mark, 100));
        expected += frame(mark, 100);
    }
    std::string chunk;
    ASSERT_TRUE(queue.take(chunk, 16384));
    EXPECT_EQ(chunk, expected);
    EXPECT_EQ(queue.waitingBytes(), 0u);
    EXPECT_TRUE(queue.isEmpty());
}

TEST(OutputQueue, ChunksHoldWholeFramesWithinTheirSize) {
    OutputQueue queue;
    const auto lane = makeLane();
    for (int i = 0; i < 100; ++i)
        queue.add(lane, frame('x', 995));
    std::string chunk;
    while (queue.take(chunk, 16384)) {
        EXPECT_EQ(chunk.size() % 1000, 0u);
        EXPECT_LE(chunk.size(), 16384u);
        chunk.clear();
    }
}

TEST(OutputQueue, HeldFramesStayUntilTheirBatchIsReleased) {
    OutputQueue queue;
    const auto lane = makeLane();
    queue.hold(lane, 1, frame('a', 1));
    queue.hold(lane, 2, frame('b', 1));
    std::string chunk;
    EXPECT_FALSE(queue.take(chunk, 100));
    queue.release(1);
    ASSERT_TRUE(queue.take(chunk, 100));
    EXPECT_EQ(chunk, frame('a', 1));
    queue.release(2);
    EXPECT_EQ(takeAll(queue, 100), frame('b', 1));
}

TEST(OutputQueue, DroppedLaneLeavesNothingBehind) {
    OutputQueue queue;
    const auto lane = makeLane();
    queue.hold(lane, 1, frame('a', 1));
    queue.add(lane, frame('b', 1));
    queue.drop(lane);
    queue.release(1);
    EXPECT_EQ(queue.waitingBytes(), 0u);
    EXPECT_EQ(takeAll(queue, 100), "");
}

TEST(OutputQueue, FramesOfTheConnectionGoFirst) {
    OutputQueue queue;
    queue.add(makeLane(), frame('a', 1));
    FrameWriter(queue.control(), FrameKind::pong).finish();
    const std::string all = takeAll(queue, 100);
    EXPECT_EQ(all[4], static_cast<char>(FrameKind::pong));
}

}  // namespace
}  // namespace qel
