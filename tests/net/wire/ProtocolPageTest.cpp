#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "qelCore/Item.h"
#include "support/EchoService.h"
#include "wire/Handshake.h"

namespace qel {
namespace {

class EventScheme : public PacketScheme {
  public:
    EventScheme() : PacketScheme(301, "AuditProtocol", "AuditSession", "AuditData") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        Item("event", -1);
        NextVersion();
    }
};

class AckScheme : public PacketScheme {
  public:
    AckScheme() : PacketScheme(302, "AuditProtocol", "AuditSession", "AuditDataAck") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        NextVersion();
    }
};

constexpr long long eventTime = 1'700'000'000'000'000;

/// The hexadecimal bytes at the begin of each line of the page's conversation.
std::string bytesOfPage() {
    std::ifstream page(QEL_SOURCE_DIR "/docs/protocol.md");
    std::string line;
    std::string bytes;
    bool inside = false;
    while (std::getline(page, line)) {
        inside = inside || line == "## A conversation";
        if (!inside)
            continue;
        std::istringstream words(line.substr(0, line.find("  ")));
        std::string word;
        while (words >> word && word.size() == 2 &&
               word.find_first_not_of("0123456789abcdef") == std::string::npos)
            bytes += static_cast<char>(std::stoi(word, nullptr, 16));
    }
    return bytes;
}

std::string packetFrame(const Packet& packet) {
    std::string bytes;
    FrameWriter(bytes, FrameKind::packet).u32(1).bytes(packet.getEncoded().view()).finish();
    return bytes;
}

std::string conversation() {
    const NetworkLimits limits;
    std::string bytes;
    Hello hello;
    hello.frameBytes = limits.frameBytes;
    hello.valueBytes = limits.valueBytes;
    hello.idleSeconds = limits.idleSeconds;
    hello.write(bytes);
    Welcome welcome;
    welcome.frameBytes = limits.frameBytes;
    welcome.valueBytes = limits.valueBytes;
    welcome.idleSeconds = limits.idleSeconds;
    welcome.write(bytes);
    Open open;
    open.channel = 1;
    open.sessionType = 3;
    open.service = "audit";
    open.write(bytes);
    FrameWriter(bytes, FrameKind::opened).u32(1).finish();
    EventScheme eventScheme;
    const auto event = makeRef<Packet>(&eventScheme, short{-1});
    event->singleSet<long long>("time", eventTime);
    Item item;
    item.addString("Login");
    event->setItem("event", item);
    bytes += packetFrame(*event);
    AckScheme ackScheme;
    const auto ack = makeRef<Packet>(&ackScheme, short{-1});
    ack->singleSet<long long>("time", eventTime);
    bytes += packetFrame(*ack);
    FrameWriter(bytes, FrameKind::ping).u32(0).u32(30).finish();
    FrameWriter(bytes, FrameKind::pong).u32(0).u32(30).finish();
    FrameWriter(bytes, FrameKind::close).bytes("the client is done").finish();
    return bytes;
}

TEST(ProtocolPage, ConversationHoldsTheBytesThatAreSpoken) {
    EXPECT_EQ(bytesOfPage(), conversation());
}

}  // namespace
}  // namespace qel
