#include <array>
#include <cstdint>

#include "qelCore/logging/Log.h"

namespace qel::logging {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";

struct CodePoint {
    std::uint32_t value = 0;
    std::size_t size = 0;  // 0: the bytes are no UTF-8
};

unsigned char byteAt(std::string_view text, std::size_t index) {
    return static_cast<unsigned char>(text[index]);
}

std::size_t sequenceSize(unsigned char lead) {
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if ((lead & 0xF0U) == 0xE0)
        return 3;
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// Overlong forms, surrogates and values above U+10FFFF are no UTF-8.
bool isScalar(std::uint32_t value, std::size_t size) {
    constexpr std::array<std::uint32_t, 5> smallest{0, 0, 0x80, 0x800, 0x10000};
    return value >= smallest[size] && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

CodePoint decode(std::string_view text, std::size_t index) {
    const unsigned char lead = byteAt(text, index);
    const std::size_t size = sequenceSize(lead);
    if (size == 0 || size > text.size() - index)
        return {};
    if (size == 1)
        return {lead, 1};
    std::uint32_t value = lead & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        const unsigned char next = byteAt(text, index + i);
        if ((next & 0xC0U) != 0x80)
            return {};
        value = (value << 6U) | (next & 0x3FU);
    }
    return isScalar(value, size) ? CodePoint{value, size} : CodePoint{};
}

// What ends a line, drives a terminal, or turns the writing direction round.
bool mustBeEscaped(std::uint32_t value) {
    return value < 0x20 || (value >= 0x7F && value <= 0x9F) || value == 0x061C || value == 0x200E ||
           value == 0x200F || (value >= 0x2028 && value <= 0x202E) || (value >= 0x2066 && value <= 0x2069);
}

void appendHex(std::string& out, std::uint32_t value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        out += hexDigits[(value >> static_cast<unsigned>(shift)) & 0xFU];
}

void appendEscape(std::string& out, std::uint32_t value) {
    switch (value) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    out += value < 0x80 ? "\\x" : "\\u";
    appendHex(out, value, value < 0x80 ? 2 : 4);
}

std::size_t appendNext(std::string& out, std::string_view text, std::size_t index) {
    const CodePoint point = decode(text, index);
    if (point.size == 0) {
        out += "\\x";
        appendHex(out, byteAt(text, index), 2);
        return index + 1;
    }
    if (mustBeEscaped(point.value))
        appendEscape(out, point.value);
    else
        out.append(text, index, point.size);
    return index + point.size;
}

bool isPlainAscii(std::string_view text) {
    for (const char character : text)
        if (character < 0x20 || character > 0x7E)
            return false;
    return true;
}

}  // namespace

std::string escaped(std::string_view text) {
    if (isPlainAscii(text))
        return std::string(text);
    std::string out;
    out.reserve(text.size() + 16);
    for (std::size_t index = 0; index < text.size();)
        index = appendNext(out, text, index);
    return out;
}

}  // namespace qel::logging
