#include "qelCore/util/Crc32c.h"

#include <array>

namespace qel::util {

namespace {

constexpr unsigned reflectedPolynomial = 0x82F63B78U;

constexpr std::array<unsigned, 256> makeTable() {
    std::array<unsigned, 256> table{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        unsigned value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1U) != 0 ? (value >> 1U) ^ reflectedPolynomial : value >> 1U;
        table[byte] = value;
    }
    return table;
}

constexpr std::array<unsigned, 256> table = makeTable();

}  // namespace

unsigned crc32c(unsigned seed, const unsigned char* data, unsigned length) {
    unsigned reg = seed;
    for (unsigned i = 0; i < length; ++i)
        reg = (reg >> 8U) ^ table[(reg ^ data[i]) & 0xFFU];
    return reg;
}

}  // namespace qel::util
