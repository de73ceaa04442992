#pragma once

#include <cstddef>
#include <string_view>

namespace qel {

/// Bytes that belong to somebody else: a pointer and a size. It owns nothing; whoever hands one out says how
/// long the bytes stay. "Nothing there" is a null data pointer, which differs from "there, and empty".
class ConstByteSpan {
  public:
    constexpr ConstByteSpan() noexcept = default;
    constexpr ConstByteSpan(std::nullptr_t) noexcept {}
    constexpr ConstByteSpan(const unsigned char* data, std::size_t size) noexcept
        : data_(data), size_(size) {}
    explicit ConstByteSpan(std::string_view bytes) noexcept
        : data_(reinterpret_cast<const unsigned char*>(bytes.data())), size_(bytes.size()) {}

    constexpr const unsigned char* data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr bool isNull() const noexcept { return data_ == nullptr; }
    constexpr explicit operator bool() const noexcept { return data_ != nullptr; }
    constexpr const unsigned char* begin() const noexcept { return data_; }
    constexpr const unsigned char* end() const noexcept { return data_ + size_; }
    constexpr unsigned char operator[](std::size_t index) const noexcept { return data_[index]; }
    std::string_view view() const noexcept {
        return data_ == nullptr ? std::string_view()
                                : std::string_view(reinterpret_cast<const char*>(data_), size_);
    }

    friend constexpr bool operator==(const ConstByteSpan& span, std::nullptr_t) noexcept {
        return span.isNull();
    }

  private:
    const unsigned char* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace qel
