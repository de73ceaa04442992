#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// The bytes of encoded items: docs/formats/item.md. All values here lie on disk and on the wire, so they are kept
/// for good. Bytewise order of the codes is the order of the values.
namespace qel::codec {

// Ends a text, plain bytes or a nested item. No element begins with it, so a shorter item sorts first.
constexpr unsigned char endMark = 0x00;
// Texts and bytes hold no endMark: 00 is written as 01 01 and 01 as 01 02, which keeps their order.
constexpr unsigned char escape = 0x01;
constexpr unsigned char escapedZero = 0x01;
constexpr unsigned char escapedOne = 0x02;

constexpr unsigned char boolFalse = 13;
constexpr unsigned char boolTrue = 14;
// Integers: the code says sign and length; 0x10 to 0x17 are negative numbers of 8 to 1 bytes, 0x19 to 0x20 positive
// ones of 1 to 8 bytes, most significant byte first, in two's complement, of the least length that holds them.
constexpr unsigned char integerZero = 0x18;
constexpr unsigned char integerFirst = 0x10;
constexpr unsigned char integerLast = 0x20;
constexpr unsigned char text = 0x28;
constexpr unsigned char bytes = 0x30;
// Above all others, so that walking back from a key that ends in an integer never reaches one that ends in an item.
constexpr unsigned char nested = 0x38;

// Lower and upper than the first byte of any element: bounds for seeks.
constexpr unsigned char belowAll = 0x01;
constexpr unsigned char firstCode = boolFalse;
constexpr unsigned char aboveAll = 0xff;

constexpr std::size_t longestInteger = 9;

/// Writes the element and returns its length; `out` has room for `longestInteger` bytes.
std::size_t encodeInteger(long long value, unsigned char* out);

/// As `elementEnd`, for elements that are no integers.
const unsigned char* longElementEnd(const unsigned char* at, const unsigned char* end, int depth);

/// Where the element at `at` ends, or null when there is none before `end` or its frame is broken. Looks no further
/// than needed to find the end: use it on bytes that are known to be good or that are decoded afterwards.
inline const unsigned char* elementEnd(const unsigned char* at, const unsigned char* end, int depth = 0) {
    if (at == end)
        return nullptr;
    if (*at < integerFirst || *at > integerLast)
        return longElementEnd(at, end, depth);
    const int length = *at - integerZero;
    const int bytesBehind = length < 0 ? -length : length;
    return end - at <= bytesBehind ? nullptr : at + 1 + bytesBehind;
}

/// True when the bytes are whole elements in their one valid form, nested at most `maxDepth` deep.
bool isWellFormed(const unsigned char* at, const unsigned char* end, int maxDepth);

inline std::uint64_t wordAt(const unsigned char* at) {
    std::uint64_t word = 0;
    std::memcpy(&word, at, sizeof word);
    return word;
}

/// Whether two byte strings of one length are equal; for keys, which are short.
inline bool areEqual(const void* a, const void* b, std::size_t size) {
    constexpr std::size_t step = sizeof(std::uint64_t);
    const auto* left = static_cast<const unsigned char*>(a);
    const auto* right = static_cast<const unsigned char*>(b);
    if (size < step)
        return std::memcmp(a, b, size) == 0;
    // The last word may overlap the one before.
    const std::size_t last = size - step;
    for (std::size_t at = 0; at < last; at += step)
        if (wordAt(left + at) != wordAt(right + at))
            return false;
    return wordAt(left + last) == wordAt(right + last);
}

/// Reads the integer at `at` and returns where it ends; null when there is none in its one valid form before `end`.
const unsigned char* takeInteger(const unsigned char* at, const unsigned char* end, long long& value);

/// The first endMark or escape at or behind `at`, or `end`: where a text that holds no escape ends. Texts are short, so
/// eight bytes at a time beat a call.
inline const unsigned char* firstMark(const unsigned char* at, const unsigned char* end) {
    constexpr std::uint64_t ones = 0x0101010101010101U;
    for (; end - at >= 8; at += 8) {
        const std::uint64_t word = wordAt(at);
        const std::uint64_t marks = (word - ones * 2) & ~word & (ones * 0x80);
        if (marks != 0)
            break;
    }
    while (at != end && *at > escape)
        ++at;
    return at;
}

/// True when the text or bytes between `at` and `end` need no decoding.
inline bool isVerbatim(const unsigned char* at, const unsigned char* end) {
    return std::memchr(at, escape, static_cast<std::size_t>(end - at)) == nullptr;
}
/// Decodes the content of a text or of plain bytes; false when an escape is none.
bool unescape(const unsigned char* at, const unsigned char* end, std::string& out);

/// Appends the printable form of the elements, as `Item::asString` documents it.
void print(const unsigned char* at, const unsigned char* end, std::string& out);
/// Appends bytes as hexadecimal digits.
void printHex(std::string_view content, std::string& out);

}  // namespace qel::codec
