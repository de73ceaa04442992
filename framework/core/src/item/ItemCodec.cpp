#include "item/ItemCodec.h"

#include <bit>
#include <cstring>

#include "qelCore/Item.h"

namespace qel::codec {

namespace {

using Byte = unsigned char;

unsigned bytesOf(unsigned long long magnitude) {
    return static_cast<unsigned>((std::bit_width(magnitude | 1) + 7) / 8);
}

bool isInteger(Byte code) {
    return code >= integerFirst && code <= integerLast;
}

unsigned integerLength(Byte code) {
    return code >= integerZero ? unsigned(code - integerZero) : unsigned(integerZero - code);
}

std::uint32_t readFour(const Byte* at) {
    std::uint32_t four = 0;
    std::memcpy(&four, at, sizeof four);
    return std::endian::native == std::endian::little ? __builtin_bswap32(four) : four;
}

// A number of at most 8 bytes, most significant first. Longer ones as two halves, which may overlap: times are read all day.
std::uint64_t readNumber(const Byte* at, unsigned length) {
    std::uint64_t number = 0;
    if (length >= 4)
        return std::uint64_t{readFour(at)} << (8 * (length - 4)) | readFour(at + length - 4);
    for (unsigned i = 0; i < length; ++i)
        number = number << 8 | at[i];
    return number;
}

const Byte* findEndMark(const Byte* at, const Byte* end) {
    return static_cast<const Byte*>(std::memchr(at, endMark, static_cast<std::size_t>(end - at)));
}

bool isEscapedWell(const Byte* at, const Byte* end) {
    while ((at = static_cast<const Byte*>(std::memchr(at, escape, static_cast<std::size_t>(end - at))))) {
        if (at + 1 == end || (at[1] != escapedZero && at[1] != escapedOne))
            return false;
        at += 2;
    }
    return true;
}

// The end of a well-formed element, or null.
const Byte* checkElement(const Byte* at, const Byte* end, int depthLeft);

const Byte* checkNested(const Byte* at, const Byte* end, int depthLeft) {
    while (at != end && *at != endMark) {
        at = checkElement(at, end, depthLeft);
        if (at == nullptr)
            return nullptr;
    }
    return at == end ? nullptr : at + 1;
}

const Byte* checkElement(const Byte* at, const Byte* end, int depthLeft) {
    const Byte code = *at;
    if (code == nested)
        return depthLeft <= 0 ? nullptr : checkNested(at + 1, end, depthLeft - 1);
    const Byte* const after = elementEnd(at, end);
    if (after == nullptr)
        return nullptr;
    if (isInteger(code)) {
        long long ignored;
        return takeInteger(at, after, ignored);
    }
    if (code == text || code == bytes)
        return isEscapedWell(at + 1, after - 1) ? after : nullptr;
    return after;
}

}  // namespace

std::size_t encodeInteger(long long value, unsigned char* out) {
    if (value == 0) {
        out[0] = integerZero;
        return 1;
    }
    const auto raw = static_cast<unsigned long long>(value);
    const unsigned length = bytesOf(value < 0 ? ~raw : raw);
    out[0] = static_cast<Byte>(value < 0 ? integerZero - length : integerZero + length);
    for (unsigned i = 0; i < length; ++i)
        out[1 + i] = static_cast<Byte>(raw >> (8 * (length - 1 - i)));
    return 1 + length;
}

namespace {

[[gnu::noinline]] const Byte* mixedEnd(const Byte* at, const Byte* end, int depth) {
    while (at != end && *at != endMark) {
        at = elementEnd(at, end, depth);
        if (at == nullptr)
            return nullptr;
    }
    return at == end ? nullptr : at + 1;
}

}  // namespace

const unsigned char* longElementEnd(const unsigned char* at, const unsigned char* end, int depth) {
    const Byte code = *at++;
    if (code == nested) {
        if (depth >= Item::maxDepth)
            return nullptr;
        // Most of what is nested are a time and another integer.
        while (at != end && isInteger(*at)) {
            const unsigned length = integerLength(*at);
            if (static_cast<std::size_t>(end - at) <= length)
                return nullptr;
            at += 1 + length;
        }
        return at != end && *at == endMark ? at + 1 : mixedEnd(at, end, depth + 1);
    }
    if (code == text || code == bytes) {
        const Byte* const mark = findEndMark(at, end);
        return mark == nullptr ? nullptr : mark + 1;
    }
    return code == boolFalse || code == boolTrue ? at : nullptr;
}

bool isWellFormed(const unsigned char* at, const unsigned char* end, int maxDepth) {
    while (at != end) {
        at = checkElement(at, end, maxDepth);
        if (at == nullptr)
            return false;
    }
    return true;
}

const unsigned char* takeInteger(const unsigned char* at, const unsigned char* end, long long& value) {
    if (at == end || !isInteger(*at))
        return nullptr;
    const Byte code = *at++;
    const unsigned length = integerLength(code);
    if (static_cast<std::size_t>(end - at) < length)
        return nullptr;
    const bool negative = code < integerZero;
    unsigned long long raw = readNumber(at, length);
    if (negative && length < sizeof raw)
        raw |= ~0ULL << (8 * length);
    if (length != 0) {
        const unsigned long long magnitude = negative ? ~raw : raw;
        if (magnitude >> 63 || bytesOf(magnitude) != length || raw == 0)
            return nullptr;
    }
    value = static_cast<long long>(raw);
    return at + length;
}

bool unescape(const unsigned char* at, const unsigned char* end, std::string& out) {
    out.clear();
    while (at != end) {
        const auto* mark =
            static_cast<const Byte*>(std::memchr(at, escape, static_cast<std::size_t>(end - at)));
        const Byte* const stop = mark == nullptr ? end : mark;
        out.append(reinterpret_cast<const char*>(at), static_cast<std::size_t>(stop - at));
        if (mark == nullptr)
            return true;
        if (mark + 1 == end || (mark[1] != escapedZero && mark[1] != escapedOne))
            return false;
        out.push_back(mark[1] == escapedZero ? '\0' : '\1');
        at = mark + 2;
    }
    return true;
}

}  // namespace qel::codec
