#include "qelCore/Packet.h"

#include <cstdint>

#include "packet/Layout.h"
#include "packet/WireValue.h"
#include "qelCore/logging/Log.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

// Room for a usual event in one go.
constexpr std::size_t usualSize = 256;

void logRefused(const PacketScheme* scheme, const char* name, const char* reason) {
    logging::MessageStream(logging::levelError, logging::channelSystem)
        << "packet " << (scheme == nullptr ? "of no scheme" : scheme->getName()) << ": element " << name
        << " not set: " << reason;
}

bool holdsItem(const PacketScheme::Element& element, ConstByteSpan bytes) {
    const bool allowedSize = element.size < 0 || bytes.size() == static_cast<std::size_t>(element.size);
    return allowedSize && Item::isWellFormed(bytes, Packet::maxEncodedSize);
}

short versionOf(const PacketScheme* scheme, short version) {
    if (scheme == nullptr)
        return 0;
    return scheme->getElementCount(version) >= 0 ? version : scheme->getNewestVersion();
}

}  // namespace

Packet::Packet(PacketScheme* scheme, short version)
    : scheme_(scheme),
      type_(scheme == nullptr ? short{0} : scheme->getType()),
      version_(versionOf(scheme, version)) {
    owned_.reserve(usualSize);
    packet::appendNumber(owned_, type_);
    packet::appendNumber(owned_, version_);
    const int count = scheme == nullptr ? 0 : scheme->getElementCount(version_);
    for (int i = 0; i < count; ++i)
        packet::appendDefault(owned_, scheme->getElements()[static_cast<std::size_t>(i)]);
}

Packet::Packet(ConstByteSpan bytes)
    : type_(packet::readNumber<short>(bytes.data())),
      version_(packet::readNumber<short>(bytes.data() + sizeof(short))),
      borrowed_(bytes) {}

Packet::~Packet() = default;

Packet* Packet::decode(ConstByteSpan bytes) {
    if (bytes.isNull() || bytes.size() < headerSize || bytes.size() > maxEncodedSize)
        return nullptr;
    return new Packet(bytes);
}

void Packet::ownBytes() {
    if (borrowed_.isNull())
        return;
    owned_ = borrowed_.view();
    borrowed_ = nullptr;
}

bool Packet::fit(PacketScheme* scheme) {
    if (scheme == nullptr || scheme->getType() != type_)
        return false;
    const int count = scheme->getElementCount(version_);
    const ConstByteSpan encoded = getEncoded();
    packet::Layout layout(encoded);
    for (int i = 0; i < count; ++i) {
        const PacketScheme::Element& element = scheme->getElements()[static_cast<std::size_t>(i)];
        if (!layout.take(element))
            return false;
        if (element.isItem() &&
            !holdsItem(element, {encoded.data() + layout.valueOffset(), layout.valueSize()}))
            return false;
    }
    if (count < 0 || !layout.atEnd())
        return false;
    scheme_ = scheme;
    return true;
}

Packet::Place Packet::find(const char* name) const {
    if (scheme_ == nullptr || name == nullptr)
        return {};
    const int count = scheme_->getElementCount(version_);
    packet::Layout layout(getEncoded());
    for (int i = 0; i < count; ++i) {
        const PacketScheme::Element& element = scheme_->getElements()[static_cast<std::size_t>(i)];
        if (!layout.take(element))
            return {};
        if (element.name == name)
            return {&element, layout.valueOffset(), layout.valueSize()};
    }
    return {};
}

Packet::Place Packet::findScalar(const char* name, int index, PacketScheme::Kind kind) const {
    const Place place = find(name);
    if (place.element == nullptr || place.element->kind != kind || index < 0 || index >= place.element->count)
        return {};
    const std::size_t size = static_cast<std::size_t>(place.element->size);
    return {place.element, place.offset + static_cast<std::size_t>(index) * size, size};
}

bool Packet::readScalar(const char* name, int index, PacketScheme::Kind kind, void* value) const {
    const Place place = findScalar(name, index, kind);
    if (place.element == nullptr)
        return false;
    const unsigned char* const bytes = getEncoded().data() + place.offset;
    if (kind == PacketScheme::kindOf<bool>())
        *static_cast<bool*>(value) = *bytes != 0;
    else
        packet::copyScalar(value, bytes, place.size);
    return true;
}

bool Packet::writeScalar(const char* name, int index, PacketScheme::Kind kind, const void* value) {
    const Place place = findScalar(name, index, kind);
    if (place.element == nullptr) {
        logRefused(scheme_, name, "there is no such value of that type");
        return false;
    }
    ownBytes();
    packet::copyScalar(owned_.data() + place.offset, value, place.size);
    return true;
}

void Packet::setItem(const char* name, const Item& value) {
    const Place place = find(name);
    if (place.element == nullptr || !place.element->isItem())
        return logRefused(scheme_, name, "there is no such item");
    if (place.element->size >= 0 && value.size() != static_cast<std::size_t>(place.element->size))
        return logRefused(scheme_, name, "the item has not the declared size");
    if (value.size() > maxEncodedSize - (getEncoded().size() - place.size))
        return logRefused(scheme_, name, "the packet would become too large");
    ownBytes();
    const auto length = static_cast<std::uint32_t>(value.size());
    packet::copyScalar(owned_.data() + place.offset - packet::itemLengthSize, &length,
                       packet::itemLengthSize);
    owned_.replace(place.offset, place.size, reinterpret_cast<const char*>(value.data()), value.size());
}

Item Packet::getItem(const char* name) const {
    Item item;
    const ConstByteSpan bytes = getItemBytes(name);
    if (!bytes.isNull())
        item.setPlain(bytes);
    return item;
}

ConstByteSpan Packet::getItemBytes(const char* name) const {
    const Place place = find(name);
    if (place.element == nullptr || !place.element->isItem())
        return nullptr;
    return {getEncoded().data() + place.offset, place.size};
}

}  // namespace qel
