#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "qelCore/GregorianDate.h"

namespace qel {

namespace {

using MonthNames = std::array<std::string_view, 12>;

constexpr MonthNames englishMonths{"January", "February", "March",     "April",   "May",      "June",
                                   "July",    "August",   "September", "October", "November", "December"};
constexpr MonthNames germanMonths{"Januar", "Februar", "März",      "April",   "Mai",      "Juni",
                                  "Juli",   "August",  "September", "Oktober", "November", "Dezember"};
constexpr std::size_t abbreviationSize = 3;
constexpr std::size_t numberSize = 16;

std::string_view monthIn(const MonthNames& names, int month) {
    return month >= 1 && month <= 12 ? names[static_cast<std::size_t>(month - 1)] : std::string_view();
}

// What does not fit the width is written whole; a minus sign counts, as in printf.
char* writeAnyNumber(char* out, int value, int width) {
    std::array<char, numberSize> digits;
    const unsigned magnitude = value < 0 ? 0U - static_cast<unsigned>(value) : static_cast<unsigned>(value);
    const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), magnitude).ptr;
    if (value < 0) {
        *out++ = '-';
        --width;
    }
    for (auto missing = width - (end - digits.data()); missing > 0; --missing)
        *out++ = '0';
    for (const char* digit = digits.data(); digit != end; ++digit)
        *out++ = *digit;
    return out;
}

char* writeTwo(char* out, int value) {
    if (value < 0 || value > 99)
        return writeAnyNumber(out, value, 2);
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

char* writeFour(char* out, int value) {
    if (value < 0 || value > 9999)
        return writeAnyNumber(out, value, 4);
    return writeTwo(writeTwo(out, value / 100), value % 100);
}

void appendNumber(String& text, int value, char* (*write)(char*, int)) {
    std::array<char, numberSize> buffer;
    text.append(buffer.data(), static_cast<std::size_t>(write(buffer.data(), value) - buffer.data()));
}

// False when the letter names no field.
bool appendField(String& text, const GregorianDate& date, char field) {
    switch (field) {
        case 'd':
            appendNumber(text, date.getDay(), writeTwo);
            return true;
        case 'm':
            appendNumber(text, date.getMonth(), writeTwo);
            return true;
        case 'Y':
            appendNumber(text, date.getYear(), writeFour);
            return true;
        case 'H':
            appendNumber(text, date.getHour(), writeTwo);
            return true;
        case 'M':
            appendNumber(text, date.getMinute(), writeTwo);
            return true;
        case 'S':
            appendNumber(text, date.getSecond(), writeTwo);
            return true;
        case 'b':
            text += monthIn(englishMonths, date.getMonth()).substr(0, abbreviationSize);
            return true;
        case 'B':
            text += monthIn(englishMonths, date.getMonth());
            return true;
        case '%':
            text += '%';
            return true;
        default:
            return false;
    }
}

}  // namespace

char* GregorianDate::formatAsUSDateTime(char* out) const {
    out = writeTwo(out, month_);
    *out++ = '/';
    out = writeTwo(out, day_);
    *out++ = '/';
    out = writeFour(out, year_);
    *out++ = ' ';
    out = writeTwo(out, hour_);
    *out++ = ':';
    out = writeTwo(out, minute_);
    *out++ = ':';
    return writeTwo(out, second_);
}

String GregorianDate::formatAsUSDateTime() const {
    std::array<char, maxTextSize> text;
    return String(text.data(), static_cast<std::size_t>(formatAsUSDateTime(text.data()) - text.data()));
}

String GregorianDate::formatAsShortTextDateTime(const char* pattern) const {
    String text;
    for (const char* next = pattern == nullptr ? "%d %b %Y %H:%M" : pattern; *next != '\0'; ++next) {
        if (*next == '%' && appendField(text, *this, next[1]))
            ++next;
        else
            text += *next;
    }
    return text;
}

String GregorianDate::getMonthName(int month, const char* language) {
    const bool german = language != nullptr && std::strcmp(language, "de") == 0;
    return String(monthIn(german ? germanMonths : englishMonths, month));
}

}  // namespace qel
