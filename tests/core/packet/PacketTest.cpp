#include "qelCore/Packet.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "qelCore/Ref.h"
#include "qelCore/String.h"
#include "qelCore/logging/CaptureSink.h"

namespace qel {
namespace {

struct EventScheme : PacketScheme {
    EventScheme() : PacketScheme(1301, "TestProtocol", "TestSession", "Event") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        Item("event", -1);
        NextVersion();
    }
};

struct AckScheme : PacketScheme {
    explicit AckScheme(short type = 1302) : PacketScheme(type, "TestProtocol", "TestSession", "Ack") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        NextVersion();
    }
};

/// Every kind of element, in three versions.
struct WideScheme : PacketScheme {
    WideScheme() : PacketScheme(-7, "TestProtocol", "TestSession", "Wide") {
        static const short defaults[3] = {1, -2, 3};
        addElement("flag", 1, 1, &typeid(bool), nullptr);
        addElement("list", 3, 2, &typeid(short), reinterpret_cast<const unsigned char*>(defaults));
        NextVersion();
        addElement("ratio", 1, 8, &typeid(double), nullptr);
        Item("pair", 2);
        NextVersion();
        addElement("count", 1, 4, &typeid(unsigned), nullptr);
        addElement("weight", 1, 4, &typeid(float), nullptr);
        NextVersion();
    }
};

struct FlawedScheme : PacketScheme {
    FlawedScheme() : PacketScheme(1303, "TestProtocol", "TestSession", "Flawed") {
        addElement("text", 1, 8, &typeid(String), nullptr);
        NextVersion();
    }
};

std::string hex(ConstByteSpan bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

Item loginEvent() {
    Item event;
    event.addString("Login");
    return event;
}

class PacketTest : public testing::Test {
  protected:
    Ref<Packet> event(long long time, const Item& content) {
        Ref<Packet> packet = makeRef<Packet>(&eventScheme, short{-1});
        packet->singleSetInternal("time", time);
        packet->setItem("event", content);
        return packet;
    }
    Ref<Packet> received(const std::string& bytes) {
        kept = bytes;
        return Ref<Packet>::adopt(Packet::decode(ConstByteSpan(std::string_view(kept))));
    }
    std::string encoded(const Packet& packet) { return std::string(packet.getEncoded().view()); }

    EventScheme eventScheme;
    AckScheme ackScheme;
    std::string kept;
};

TEST_F(PacketTest, AcknowledgementByteByByte) {
    const Ref<Packet> packet = makeRef<Packet>(&ackScheme, short{-1});
    packet->singleSetInternal("time", 1700000000000000LL);
    EXPECT_EQ(hex(packet->getEncoded()), "051600011300060a24181e4000");
}

TEST_F(PacketTest, EventByteByByte) {
    Item content;
    content.setPlain(nullptr, 0);
    const Ref<Packet> packet = event(-1, content);
    EXPECT_EQ(hex(packet->getEncoded()), "0515000113ffffffffffffffff5000000000");
    packet->setItem("event", loginEvent());
    EXPECT_EQ(hex(packet->getEncoded()),
              "0515000113ffffffffffffffff500000000728"
              "4c6f67696e"
              "00");
}

TEST_F(PacketTest, EventComesBack) {
    const Ref<Packet> packet = received(encoded(*event(1234567890123456, loginEvent())));
    EXPECT_EQ(packet->getType(), 1301);
    EXPECT_EQ(packet->getVersion(), 1);
    ASSERT_TRUE(packet->fit(&eventScheme));
    EXPECT_EQ(packet->singleGet<long long>("time"), 1234567890123456);
    EXPECT_EQ(packet->getItem("event"), loginEvent());
    EXPECT_EQ(packet->getItemBytes("event").view(), loginEvent().bytes().view());
}

TEST_F(PacketTest, NewPacketHasDefaultsAndFits) {
    const Ref<Packet> packet = makeRef<Packet>(&eventScheme, short{-1});
    EXPECT_TRUE(packet->fit(&eventScheme));
    EXPECT_EQ(packet->singleGet<long long>("time"), 0);
    EXPECT_TRUE(packet->getItem("event").isEmpty());
    EXPECT_FALSE(packet->getItemBytes("event").isNull());
    EXPECT_EQ(packet->getReferenceCount(), 1);
}

TEST_F(PacketTest, OtherTypeDoesNotFit) {
    const Ref<Packet> packet = event(1, loginEvent());
    EXPECT_FALSE(packet->fit(&ackScheme));
    EXPECT_FALSE(packet->fit(nullptr));
    EXPECT_TRUE(packet->fit(&eventScheme));
}

TEST_F(PacketTest, SameTypeWithOtherElementsIsAValueThatDoesNotFit) {
    struct OtherAck : PacketScheme {
        OtherAck() : PacketScheme(1302, "TestProtocol", "TestSession", "Other") {
            // cppcheck-suppress unusedScopedObject ; this Item is an operation of the scheme
            Item("event", -1);
            NextVersion();
        }
    } other;
    const Ref<Packet> made = makeRef<Packet>(&other, short{-1});
    EXPECT_FALSE(made->fit(&ackScheme));
    const Ref<Packet> packet = received(encoded(*made));
    EXPECT_EQ(packet->getType(), 1302);
    EXPECT_FALSE(packet->fit(&ackScheme));
    EXPECT_EQ(packet->singleGet<long long>("time"), 0);
}

TEST_F(PacketTest, SameSizeOfAnotherTypeDoesNotFit) {
    struct RealAck : PacketScheme {
        RealAck() : PacketScheme(1302, "TestProtocol", "TestSession", "Real") {
            addElement("time", 1, 8, &typeid(double), nullptr);
            NextVersion();
        }
    } other;
    EXPECT_FALSE(makeRef<Packet>(&other, short{-1})->fit(&ackScheme));
}

TEST_F(PacketTest, EveryCutDoesNotFitAndHarmsNothing) {
    const std::string whole = encoded(*event(5, loginEvent()));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Ref<Packet> packet = received(whole.substr(0, size));
        EXPECT_EQ(packet == nullptr, size < Packet::headerSize);
        if (packet == nullptr)
            continue;
        EXPECT_FALSE(packet->fit(&eventScheme)) << size;
        EXPECT_EQ(packet->singleGet<long long>("time"), 0);
        EXPECT_TRUE(packet->getItem("event").isEmpty());
    }
    EXPECT_FALSE(received(whole + '\0')->fit(&eventScheme));
}

TEST_F(PacketTest, EveryFlippedByteIsDecodedOrDoesNotFit) {
    const std::string whole = encoded(*event(5, loginEvent()));
    for (std::size_t at = 0; at < whole.size(); ++at)
        for (int bit = 0; bit < 8; ++bit) {
            std::string bytes = whole;
            bytes[at] = static_cast<char>(bytes[at] ^ (1 << bit));
            const Ref<Packet> packet = received(bytes);
            ASSERT_NE(packet, nullptr);
            if (packet->fit(&eventScheme)) {
                EXPECT_GE(at, 5U);
                EXPECT_TRUE(packet->getItem("event").isWellFormed());
            }
        }
}

TEST_F(PacketTest, ItemThatDoesNotDecodeDoesNotFit) {
    Item malformed;
    const unsigned char garbage[] = {0xFF, 0xFE, 0x00};
    malformed.setPlain(garbage, sizeof garbage);
    EXPECT_FALSE(received(encoded(*event(1, malformed)))->fit(&eventScheme));
}

TEST_F(PacketTest, UnknownTypesAreOpaque) {
    const Ref<Packet> packet = received(std::string("\x7F\x01\x00\x63whatever", 12));
    EXPECT_EQ(packet->getType(), 0x7F01);
    EXPECT_EQ(packet->getVersion(), 0x63);
    EXPECT_FALSE(packet->fit(&eventScheme));
    EXPECT_EQ(packet->getEncoded().size(), 12U);
}

TEST_F(PacketTest, VersionOutsideTheSchemeDoesNotFit) {
    for (const short version : {short{0}, short{2}, short{-1}, std::numeric_limits<short>::min()}) {
        std::string bytes = encoded(*event(1, loginEvent()));
        bytes[2] = static_cast<char>(version >> 8);
        bytes[3] = static_cast<char>(version);
        EXPECT_FALSE(received(bytes)->fit(&eventScheme)) << version;
    }
}

TEST_F(PacketTest, NothingAndHugeDecodeToNull) {
    EXPECT_EQ(Packet::decode(nullptr), nullptr);
    const unsigned char bytes[4] = {};
    EXPECT_EQ(Packet::decode({bytes, 3}), nullptr);
    EXPECT_EQ(Packet::decode({bytes, Packet::maxEncodedSize + 1}), nullptr);
}

TEST_F(PacketTest, LooksIntoForeignBytesUntilItOwnsThem) {
    const Ref<Packet> packet = received(encoded(*event(5, loginEvent())));
    EXPECT_EQ(packet->getEncoded().data(), reinterpret_cast<const unsigned char*>(kept.data()));
    packet->ownBytes();
    kept.assign(kept.size(), '\0');
    ASSERT_TRUE(packet->fit(&eventScheme));
    EXPECT_EQ(packet->singleGet<long long>("time"), 5);
}

TEST_F(PacketTest, ChangingAReceivedPacketLeavesTheForeignBytes) {
    const Ref<Packet> packet = received(encoded(*event(5, loginEvent())));
    const std::string before = kept;
    ASSERT_TRUE(packet->fit(&eventScheme));
    packet->singleSet("time", 6LL);
    packet->setItem("event", Item());
    EXPECT_EQ(kept, before);
    EXPECT_EQ(packet->singleGet<long long>("time"), 6);
    EXPECT_TRUE(packet->fit(&eventScheme));
}

TEST_F(PacketTest, GetOfAnotherTypeOrNameIsFalse) {
    const Ref<Packet> packet = event(5, loginEvent());
    int narrow = 9;
    long long value = 9;
    EXPECT_FALSE(packet->singleGet("time", narrow));
    EXPECT_FALSE(packet->singleGet("event", value));
    EXPECT_FALSE(packet->singleGet("nothing", value));
    EXPECT_FALSE(packet->singleGet("time", value, 1));
    EXPECT_FALSE(packet->singleGet("time", value, -1));
    EXPECT_FALSE(packet->singleGet(nullptr, value));
    EXPECT_EQ(value, 9);
    EXPECT_TRUE(packet->singleGet("time", value));
    EXPECT_EQ(value, 5);
    EXPECT_TRUE(packet->getItem("time").isEmpty());
}

TEST_F(PacketTest, SetOfAnotherTypeOrNameIsLoggedAndChangesNothing) {
    logging::CaptureSink log;
    const Ref<Packet> packet = event(5, loginEvent());
    const std::string before = encoded(*packet);
    EXPECT_FALSE(packet->singleSet("time", 5));
    EXPECT_FALSE(packet->singleSet("nothing", 5LL));
    packet->setItem("time", loginEvent());
    packet->setItem("nothing", loginEvent());
    EXPECT_EQ(encoded(*packet), before);
    EXPECT_EQ(log.count("not set"), 4);
}

TEST_F(PacketTest, SettingAnItemAgainReplacesIt) {
    const Ref<Packet> packet = event(5, loginEvent());
    Item longer = loginEvent();
    for (int i = 0; i < 100; ++i)
        longer.addString("parameter");
    packet->setItem("event", longer);
    EXPECT_EQ(packet->getItem("event"), longer);
    packet->setItem("event", loginEvent());
    EXPECT_EQ(encoded(*packet), encoded(*event(5, loginEvent())));
}

TEST_F(PacketTest, EveryKindOfElementComesBack) {
    WideScheme wide;
    Item pair;
    pair.addBool(true);
    pair.addBool(false);
    const Ref<Packet> made = makeRef<Packet>(&wide, short{-1});
    EXPECT_EQ(made->getVersion(), 3);
    EXPECT_TRUE(made->singleSet("flag", true));
    EXPECT_TRUE(made->singleSet("list", short{-30000}, 1));
    EXPECT_TRUE(made->singleSet("ratio", 0.1));
    EXPECT_TRUE(made->singleSet("count", 4000000000U));
    EXPECT_TRUE(made->singleSet("weight", -1.5F));
    EXPECT_FALSE(made->fit(&wide));
    made->setItem("pair", pair);
    const Ref<Packet> packet = received(encoded(*made));
    ASSERT_TRUE(packet->fit(&wide));
    short middle = 0;
    short last = 0;
    EXPECT_TRUE(packet->singleGet("list", middle, 1) && packet->singleGet("list", last, 2));
    EXPECT_EQ(middle, -30000);
    EXPECT_EQ(last, 3);
    EXPECT_EQ(packet->singleGet<short>("list"), 1);
    EXPECT_TRUE(packet->singleGet<bool>("flag"));
    EXPECT_EQ(packet->singleGet<double>("ratio"), 0.1);
    EXPECT_EQ(packet->singleGet<unsigned>("count"), 4000000000U);
    EXPECT_EQ(packet->singleGet<float>("weight"), -1.5F);
    EXPECT_EQ(packet->getItem("pair"), pair);
}

TEST_F(PacketTest, OlderVersionsHaveTheirElementsOnly) {
    WideScheme wide;
    const Ref<Packet> first = makeRef<Packet>(&wide, short{1});
    EXPECT_EQ(first->getVersion(), 1);
    EXPECT_TRUE(first->fit(&wide));
    double ratio = 3;
    EXPECT_FALSE(first->singleGet("ratio", ratio));
    EXPECT_EQ(hex(first->getEncoded()), "fff9000140009100030001fffe0003");
    EXPECT_EQ(makeRef<Packet>(&wide, short{4})->getVersion(), 3);
    EXPECT_EQ(makeRef<Packet>(&wide, short{0})->getVersion(), 3);
}

TEST_F(PacketTest, ItemOfAFixedSizeTakesNoOther) {
    logging::CaptureSink log;
    WideScheme wide;
    const Ref<Packet> packet = makeRef<Packet>(&wide, short{-1});
    packet->setItem("pair", loginEvent());
    EXPECT_TRUE(log.contains("not the declared size"));
    EXPECT_TRUE(packet->getItem("pair").isEmpty());
}

TEST_F(PacketTest, FlawedElementIsLoggedAndNothingFits) {
    logging::CaptureSink log;
    FlawedScheme flawed;
    EXPECT_TRUE(log.contains("element text"));
    EXPECT_FALSE(makeRef<Packet>(&flawed, short{-1})->fit(&flawed));
}

TEST_F(PacketTest, PacketWithoutASchemeIsEmpty) {
    const Ref<Packet> packet = makeRef<Packet>(nullptr, short{-1});
    EXPECT_EQ(packet->getType(), 0);
    EXPECT_EQ(packet->getEncoded().size(), Packet::headerSize);
    EXPECT_FALSE(packet->fit(&eventScheme));
}

TEST_F(PacketTest, NamesItsClass) {
    const Ref<Object> packet = event(1, Item());
    EXPECT_STREQ(packet->getDynamicClassName(), "Packet");
}

TEST(PacketScheme, IsListedWhileItLives) {
    EXPECT_EQ(PacketScheme::find(1302), nullptr);
    {
        AckScheme first;
        EXPECT_EQ(PacketScheme::find(1302), &first);
        {
            AckScheme second;
            EXPECT_EQ(PacketScheme::find(1302), &second);
        }
        EXPECT_EQ(PacketScheme::find(1302), &first);
    }
    EXPECT_EQ(PacketScheme::find(1302), nullptr);
}

TEST(PacketScheme, TellsItsShape) {
    const EventScheme scheme;
    EXPECT_EQ(scheme.getType(), 1301);
    EXPECT_STREQ(scheme.getProtocolName(), "TestProtocol");
    EXPECT_STREQ(scheme.getSessionName(), "TestSession");
    EXPECT_STREQ(scheme.getName(), "Event");
    EXPECT_EQ(scheme.getNewestVersion(), 1);
    EXPECT_EQ(scheme.getElementCount(1), 2);
    EXPECT_EQ(scheme.getElementCount(0), -1);
    EXPECT_EQ(scheme.getElementCount(2), -1);
    EXPECT_EQ(scheme.getElements()[0].name, "time");
    EXPECT_TRUE(scheme.getElements()[1].isItem());
}

// Runs before the other static initialisers of this program, as a scheme of a library that is being loaded
// does.
AckScheme earlyScheme __attribute__((init_priority(101))){1399};
const bool foundEarly = PacketScheme::find(1399) == &earlyScheme;

TEST(PacketScheme, MayBeConstructedBeforeOtherStaticObjects) {
    EXPECT_TRUE(foundEarly);
}

}  // namespace
}  // namespace qel
