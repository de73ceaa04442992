#include "qelCore/logging/MessageStream.h"

#include <array>
#include <charconv>

#include "log/Output.h"

namespace qel::logging {

namespace {

// Room for any 64-bit integer and the shortest form of any double.
constexpr std::size_t numberSize = 32;

template <class T>
void appendNumber(std::string& text, T value) {
    std::array<char, numberSize> digits;
    const auto written = std::to_chars(digits.data(), digits.data() + digits.size(), value);
    text.append(digits.data(), written.ptr);
}

}  // namespace

MessageStream::MessageStream(int level, int channel) noexcept
    : level_(level), channel_(channel), wanted_(Output::instance().wants(level)) {}

MessageStream::~MessageStream() {
    if (!wanted_)
        return;
    try {
        Output::instance().write(level_, channel_, text_);
    } catch (...) {
        // There is no place left to tell it.
    }
}

MessageStream& MessageStream::operator<<(const char* text) {
    return *this << std::string_view(text == nullptr ? "(null)" : text);
}

MessageStream& MessageStream::operator<<(std::string_view text) {
    if (wanted_)
        text_ += text;
    return *this;
}

MessageStream& MessageStream::operator<<(double value) {
    if (wanted_)
        appendNumber(text_, value);
    return *this;
}

MessageStream& MessageStream::addSigned(long long value) {
    if (wanted_)
        appendNumber(text_, value);
    return *this;
}

MessageStream& MessageStream::addUnsigned(unsigned long long value) {
    if (wanted_)
        appendNumber(text_, value);
    return *this;
}

}  // namespace qel::logging
