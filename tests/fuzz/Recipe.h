#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace qel::fuzz {

/// Takes values off the front of a fuzzer's input; where it is used up, zeros and empty texts.
class Recipe {
  public:
    Recipe(const std::uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

    bool atEnd() const { return left_.empty(); }
    std::uint8_t byte() {
        std::uint8_t value = 0;
        read(&value, sizeof value);
        return value;
    }
    /// Small numbers as well as those at the ends of 64 bits.
    long long number() {
        const std::size_t size = byte() % 9;
        long long value = 0;
        read(&value, size);
        return value;
    }
    /// At most 255 bytes.
    std::string_view text() { return take(byte()); }
    std::string_view rest() { return take(left_.size()); }

  private:
    std::string_view take(std::size_t size) {
        const std::string_view taken = left_.substr(0, size);
        left_.remove_prefix(taken.size());
        return taken;
    }
    void read(void* to, std::size_t size) {
        const std::string_view taken = take(size);
        std::memcpy(to, taken.data(), taken.size());
    }

    std::string_view left_;
};

}  // namespace qel::fuzz
