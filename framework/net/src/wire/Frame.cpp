#include "wire/Frame.h"

namespace qel {
namespace {

void putBigEndian(std::string& out, std::uint32_t value, int count) {
    for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
        out += static_cast<char>(value >> shift & 0xFF);
}

}  // namespace

FrameWriter::FrameWriter(std::string& out, FrameKind kind) : out_(out), start_(out.size()) {
    putBigEndian(out_, 0, 4);
    out_ += static_cast<char>(kind);
}

FrameWriter& FrameWriter::u16(std::uint16_t value) {
    putBigEndian(out_, value, 2);
    return *this;
}

FrameWriter& FrameWriter::u32(std::uint32_t value) {
    putBigEndian(out_, value, 4);
    return *this;
}

FrameWriter& FrameWriter::bytes(std::string_view value) {
    out_ += value;
    return *this;
}

void FrameWriter::finish() {
    const std::size_t length = out_.size() - start_ - frameLengthBytes;
    for (std::size_t i = 0; i < frameLengthBytes; ++i)
        out_[start_ + i] = static_cast<char>(length >> (8 * (frameLengthBytes - 1 - i)) & 0xFF);
}

ConstByteSpan PayloadReader::bytes(std::size_t count) {
    if (!ok_ || rest_.size() < count) {
        ok_ = false;
        return {};
    }
    const ConstByteSpan taken(rest_.data(), count);
    rest_ = ConstByteSpan(rest_.data() + count, rest_.size() - count);
    return taken;
}

std::uint16_t PayloadReader::u16() {
    const ConstByteSpan b = bytes(2);
    return ok_ ? static_cast<std::uint16_t>(b[0] << 8 | b[1]) : std::uint16_t{0};
}

std::uint32_t PayloadReader::u32() {
    const ConstByteSpan b = bytes(4);
    return ok_ ? std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 | b[3] : 0;
}

std::string_view limitReason(std::string_view reason) {
    if (reason.size() <= longestReason)
        return reason;
    std::size_t end = longestReason;
    while (end > 0 && (reason[end] & 0xC0) == 0x80)
        --end;
    return reason.substr(0, end);
}

}  // namespace qel
