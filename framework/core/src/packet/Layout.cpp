#include "packet/Layout.h"

#include <algorithm>
#include <cstdint>

#include "packet/WireValue.h"
#include "qelCore/Packet.h"

namespace qel::packet {

Layout::Layout(ConstByteSpan encoded)
    : encoded_(encoded), at_(std::min(Packet::headerSize, encoded.size())) {}

bool Layout::take(const PacketScheme::Element& element) {
    if (element.kind == PacketScheme::noKind || !takeKind(element))
        return false;
    if (element.isItem()) {
        if (!takeItemSize())
            return false;
    } else {
        valueSize_ = static_cast<std::size_t>(element.size) * static_cast<std::size_t>(element.count);
    }
    if (!has(valueSize_))
        return false;
    valueOffset_ = at_;
    at_ += valueSize_;
    return true;
}

bool Layout::takeKind(const PacketScheme::Element& element) {
    const bool isArray = element.count > 1;
    const std::size_t size = isArray ? 3 : 1;
    if (!has(size))
        return false;
    const unsigned char* const bytes = encoded_.data() + at_;
    at_ += size;
    if (!isArray)
        return bytes[0] == element.kind;
    return bytes[0] == (element.kind | PacketScheme::arrayFlag) &&
           readNumber<std::uint16_t>(bytes + 1) == element.count;
}

bool Layout::takeItemSize() {
    if (!has(itemLengthSize))
        return false;
    valueSize_ = readNumber<std::uint32_t>(encoded_.data() + at_);
    at_ += itemLengthSize;
    return true;
}

void appendDefault(std::string& out, const PacketScheme::Element& element) {
    const bool isArray = element.count > 1;
    out += static_cast<char>(isArray ? element.kind | PacketScheme::arrayFlag : element.kind);
    if (isArray)
        appendNumber(out, static_cast<std::uint16_t>(element.count));
    if (element.isItem())
        appendNumber(out, std::uint32_t{0});
    out += element.defaultValue;
}

}  // namespace qel::packet
