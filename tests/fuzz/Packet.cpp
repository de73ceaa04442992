// Any bytes as a received packet: they decode or they do not, they fit a scheme or they do not, and what fits can be
// read, changed and encoded again.

#include "qelCore/Packet.h"

#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "qelCore/Ref.h"
#include "qelCore/String.h"

using namespace qel;

namespace {

// The type number comes from the fuzzer's input, so both schemes take the same one.
constexpr short type = 301;

struct EventScheme : PacketScheme {
    EventScheme() : PacketScheme(type, "Fuzz", "Fuzz", "Event") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        Item("event", -1);
        NextVersion();
    }
};

struct WideScheme : PacketScheme {
    WideScheme() : PacketScheme(type, "Fuzz", "Fuzz", "Wide") {
        addElement("flag", 1, 1, &typeid(bool), nullptr);
        addElement("list", 3, 2, &typeid(short), nullptr);
        NextVersion();
        addElement("ratio", 1, 8, &typeid(double), nullptr);
        Item("event", -1);
        Item("two", 2);
        NextVersion();
    }
};

void readAll(Packet& packet, PacketScheme& scheme) {
    const bool fits = packet.fit(&scheme);
    packet.singleGet<long long>("time");
    packet.singleGet<bool>("flag");
    short last = 0;
    packet.singleGet("list", last, 2);
    const Item event = packet.getItem("event");
    fuzz::check(!fits || event.isWellFormed(), "the item of a packet that fits is well-formed");
    event.asString();
}

void changeAndReadBack(const std::string& bytes, EventScheme& scheme) {
    const Ref<Packet> packet = Ref<Packet>::adopt(Packet::decode(ConstByteSpan(std::string_view(bytes))));
    if (packet == nullptr || !packet->fit(&scheme))
        return;
    const long long time = packet->singleGet<long long>("time");
    const Item event = packet->getItem("event");
    const Ref<Packet> made = makeRef<Packet>(&scheme, short{-1});
    made->singleSet("time", time);
    made->setItem("event", event);
    fuzz::check(made->getEncoded().view() == packet->getEncoded().view(), "a packet has one encoded form");
    packet->singleSet("time", time + (time < 0 ? 1 : -1));
    packet->setItem("event", Item());
    fuzz::check(packet->fit(&scheme), "a changed packet fits");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static EventScheme event;
    static WideScheme wide;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const Ref<Packet> packet = Ref<Packet>::adopt(Packet::decode(ConstByteSpan(std::string_view(bytes))));
    if (packet == nullptr)
        return 0;
    readAll(*packet, event);
    readAll(*packet, wide);
    packet->ownBytes();
    readAll(*packet, event);
    changeAndReadBack(bytes, event);
    return 0;
}
