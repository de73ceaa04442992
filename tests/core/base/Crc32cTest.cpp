#include "qelCore/util/Crc32c.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <string_view>

namespace qel {
namespace {

unsigned published(const unsigned char* data, unsigned length) {
    return ~util::crc32c(0xFFFFFFFFU, data, length);
}

TEST(Crc32c, CheckValueOfTheNineDigits) {
    const std::string_view digits = "123456789";
    EXPECT_EQ(published(reinterpret_cast<const unsigned char*>(digits.data()), 9), 0xE3069283U);
}

// The vectors of RFC 3720, appendix B.4.
TEST(Crc32c, VectorsOfRfc3720) {
    std::array<unsigned char, 32> bytes{};
    EXPECT_EQ(published(bytes.data(), 32), 0x8A9136AAU);
    bytes.fill(0xFF);
    EXPECT_EQ(published(bytes.data(), 32), 0x62A8AB43U);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    EXPECT_EQ(published(bytes.data(), 32), 0x46DD794EU);
    std::iota(bytes.rbegin(), bytes.rend(), static_cast<unsigned char>(0));
    EXPECT_EQ(published(bytes.data(), 32), 0x113FDB5CU);
}

TEST(Crc32c, ResultAsSeedContinuesTheRegister) {
    const std::string_view digits = "123456789";
    const auto* data = reinterpret_cast<const unsigned char*>(digits.data());
    EXPECT_EQ(util::crc32c(util::crc32c(0xFFFFFFFFU, data, 4), data + 4, 5),
              util::crc32c(0xFFFFFFFFU, data, 9));
}

TEST(Crc32c, NoInversionInside) {
    EXPECT_EQ(util::crc32c(0x12345678U, nullptr, 0), 0x12345678U);
    const unsigned char zero = 0;
    EXPECT_EQ(util::crc32c(0, &zero, 1), 0U);
}

}  // namespace
}  // namespace qel
