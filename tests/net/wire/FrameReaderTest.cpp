#include "wire/FrameReader.h"

#include <gtest/gtest.h>

#include <vector>

#include "wire/Handshake.h"

namespace qel {
namespace {

/// Collects frames, and can refuse to take more.
class Collector : public FrameReader::Sink {
  public:
    bool frameReceived(FrameKind kind, ConstByteSpan payload) override {
        kinds.push_back(kind);
        payloads.emplace_back(payload.view());
        return payloads.size() < limit;
    }
    std::vector<FrameKind> kinds;
    std::vector<std::string> payloads;
    std::size_t limit = 1000;
};

std::string frame(FrameKind kind, std::string_view payload) {
    std::string bytes;
    FrameWriter(bytes, kind).bytes(payload).finish();
    return bytes;
}

TEST(FrameReader, FramesComeOutHoweverTheirBytesAreCut) {
    const std::string bytes = frame(FrameKind::ping, "") + frame(FrameKind::packet, "abc") +
                              frame(FrameKind::close, std::string(300, 'r'));
    for (std::size_t piece = 1; piece <= bytes.size(); ++piece) {
        FrameReader reader(1024);
        Collector collector;
        for (std::size_t at = 0; at < bytes.size(); at += piece)
            ASSERT_TRUE(reader.feed(ConstByteSpan(std::string_view(bytes).substr(at, piece)), collector));
        EXPECT_EQ(collector.payloads, (std::vector<std::string>{"", "abc", std::string(300, 'r')}));
        EXPECT_EQ(collector.kinds,
                  (std::vector<FrameKind>{FrameKind::ping, FrameKind::packet, FrameKind::close}));
        EXPECT_FALSE(reader.isWaiting());
    }
}

TEST(FrameReader, LengthIsJudgedBeforeMemoryIsTaken) {
    FrameReader reader(1000);
    Collector collector;
    EXPECT_FALSE(reader.feed(ConstByteSpan(std::string_view("\x7f\xff\xff\xff", 4)), collector));
    EXPECT_EQ(reader.getError(), "a frame of 2147483651 bytes was announced; at most 1000 are accepted");
    EXPECT_LT(reader.getKeptBytes(), 64u);

    FrameReader slow(1000);
    EXPECT_TRUE(slow.feed(ConstByteSpan(std::string_view("\x7f\xff", 2)), collector));
    EXPECT_FALSE(slow.feed(ConstByteSpan(std::string_view("\xff\xff", 2)), collector));
    EXPECT_EQ(slow.getError(), reader.getError());
    EXPECT_LT(slow.getKeptBytes(), 64u);
}

TEST(FrameReader, FrameOfExactlyTheLimitIsTakenAndOneByteMoreIsNot) {
    Collector collector;
    FrameReader reader(1000);
    EXPECT_TRUE(reader.feed(ConstByteSpan(frame(FrameKind::packet, std::string(995, 'x'))), collector));
    EXPECT_EQ(collector.payloads.size(), 1u);
    EXPECT_FALSE(reader.feed(ConstByteSpan(frame(FrameKind::packet, std::string(996, 'x'))), collector));
}

TEST(FrameReader, FrameWithoutKindIsMalformed) {
    FrameReader reader(1000);
    Collector collector;
    EXPECT_FALSE(reader.feed(ConstByteSpan(std::string_view("\0\0\0\0", 4)), collector));
    EXPECT_EQ(reader.getError(), "a frame of length 0 arrived; its kind is missing");
    EXPECT_FALSE(reader.feed(ConstByteSpan(frame(FrameKind::ping, "")), collector));
}

TEST(FrameReader, AnnouncedBytesTakeNoMemoryUntilTheyCome) {
    FrameReader reader(100 * 1024 * 1024);
    Collector collector;
    EXPECT_TRUE(reader.feed(ConstByteSpan(std::string_view("\x05\0\0\0\x05some", 9)), collector));
    EXPECT_TRUE(reader.isWaiting());
    EXPECT_LT(reader.getKeptBytes(), 64u);
    EXPECT_TRUE(reader.feed(ConstByteSpan(std::string_view(" more")), collector));
    EXPECT_LT(reader.getKeptBytes(), 64u);
}

TEST(FrameReader, SinkStopsTheReading) {
    FrameReader reader(1000);
    Collector collector;
    collector.limit = 1;
    EXPECT_FALSE(
        reader.feed(ConstByteSpan(frame(FrameKind::ping, "1") + frame(FrameKind::ping, "2")), collector));
    EXPECT_EQ(collector.payloads.size(), 1u);
    EXPECT_EQ(reader.getError(), "");
}

TEST(Handshake, HelloReadsBackAndIgnoresWhatLaterVersionsAdd) {
    Hello hello;
    hello.frameBytes = 65536;
    hello.valueBytes = 1000;
    hello.idleSeconds = 90;
    std::string bytes;
    hello.write(bytes);
    bytes += "what a later version adds";
    Hello back;
    std::string error;
    ASSERT_TRUE(back.read(ConstByteSpan(std::string_view(bytes).substr(frameHeaderBytes)), error)) << error;
    EXPECT_EQ(back.frameBytes, 65536u);
    EXPECT_EQ(back.valueBytes, 1000u);
    EXPECT_EQ(back.idleSeconds, 90u);
    EXPECT_EQ(back.chooseVersion(error), newestProtocolVersion);
}

TEST(Handshake, VersionsWithoutACommonOneAreRefusedWithBothRanges) {
    Hello hello;
    hello.frameBytes = 65536;
    hello.oldestVersion = 7;
    hello.newestVersion = 9;
    std::string error;
    EXPECT_EQ(hello.chooseVersion(error), 0);
    EXPECT_EQ(error, "protocol version 7 to 9 is not spoken here; expected version 1");
}

TEST(Handshake, ClientThatAlsoSpeaksNewerVersionsIsUnderstood) {
    Hello hello;
    hello.frameBytes = 65536;
    hello.newestVersion = 9;
    std::string error;
    EXPECT_EQ(hello.chooseVersion(error), 1) << error;
}

TEST(Handshake, EveryShorterHelloIsRefused) {
    std::string bytes;
    Hello().write(bytes);
    const std::string payload = bytes.substr(frameHeaderBytes);
    for (std::size_t length = 0; length < payload.size(); ++length) {
        Hello hello;
        std::string error;
        EXPECT_FALSE(hello.read(ConstByteSpan(std::string_view(payload).substr(0, length)), error)) << length;
        EXPECT_FALSE(error.empty());
    }
}

TEST(Handshake, ReasonsAreCutAtACharacter) {
    const std::string text = std::string(longestReason - 1, 'a') + "\u00e4" + "b";
    EXPECT_EQ(limitReason(text), std::string(longestReason - 1, 'a'));
    EXPECT_EQ(limitReason("short"), "short");
}

}  // namespace
}  // namespace qel
