#pragma once

#include <limits>
#include <string_view>

namespace qel {

/// Reads decimal numbers from a text as the C library's scanf does, except that a number beyond an int becomes
/// the nearest int instead of anything.
class NumberScan {
  public:
    explicit NumberScan(std::string_view text) : left_(text) {}

    /// White space, a sign, digits; false, with `number` as it was, when there is no digit.
    bool number(int& number) {
        skipSpace();
        const bool negative = !left_.empty() && left_.front() == '-';
        if (!left_.empty() && (left_.front() == '-' || left_.front() == '+'))
            left_.remove_prefix(1);
        if (left_.empty() || !isDigit(left_.front()))
            return false;
        long long value = 0;
        while (!left_.empty() && isDigit(left_.front())) {
            if (value <= beyondInt)
                value = value * 10 + (left_.front() - '0');
            left_.remove_prefix(1);
        }
        number = clamp(negative ? -value : value);
        return true;
    }

    /// Whether the last number read was pulled to the nearest int.
    bool saturated() const { return saturated_; }

    bool literal(char expected) {
        if (left_.empty() || left_.front() != expected)
            return false;
        left_.remove_prefix(1);
        return true;
    }

  private:
    static constexpr long long beyondInt = std::numeric_limits<int>::max();

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }
    static bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

    void skipSpace() {
        while (!left_.empty() && isSpace(left_.front()))
            left_.remove_prefix(1);
    }

    int clamp(long long value) {
        constexpr long long least = std::numeric_limits<int>::min();
        saturated_ = value > beyondInt || value < least;
        return static_cast<int>(value > beyondInt ? beyondInt : value < least ? least : value);
    }

    std::string_view left_;
    bool saturated_ = false;
};

}  // namespace qel
