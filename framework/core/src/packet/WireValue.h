#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace qel::packet {

/// Copies one scalar between memory and wire, either way: on the wire the most significant byte comes first.
inline void copyScalar(void* to, const void* from, std::size_t size) {
    auto* out = static_cast<unsigned char*>(to);
    const auto* in = static_cast<const unsigned char*>(from);
    if constexpr (std::endian::native == std::endian::big) {
        std::memcpy(out, in, size);
    } else {
        for (std::size_t i = 0; i < size; ++i)
            out[i] = in[size - 1 - i];
    }
}

template <class T>
T readNumber(const unsigned char* from) {
    T value;
    copyScalar(&value, from, sizeof value);
    return value;
}

template <class T>
void appendNumber(std::string& out, T value) {
    char bytes[sizeof value];
    copyScalar(bytes, &value, sizeof value);
    out.append(bytes, sizeof value);
}

}  // namespace qel::packet
