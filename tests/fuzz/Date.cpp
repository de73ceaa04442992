// Any text as the Time field of an exported line: read as sscanf reads it, as far as numbers fit an int, and dates that
// were written are read back.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "converter/LineView.h"
#include "fuzz/Check.h"
#include "qelCore/GregorianDate.h"
#include "qelCore/String.h"

using namespace qel;

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// What sscanf makes of a larger number is nobody's promise.
bool everyNumberFitsAnInt(const std::string& text) {
    constexpr std::size_t safeDigits = 9;
    std::size_t digits = 0;
    for (const char c : text) {
        digits = isDigit(c) ? digits + 1 : 0;
        if (digits > safeDigits)
            return false;
    }
    return true;
}

bool areEqual(const TimeFields& a, const TimeFields& b) {
    return a.month == b.month && a.day == b.day && a.year == b.year && a.hour == b.hour &&
           a.minute == b.minute && a.second == b.second;
}

void readLikeTheLibrary(const std::string& text) {
    TimeFields expected;
    std::sscanf(text.c_str(), "%d/%d/%d %d:%d:%d", &expected.month, &expected.day, &expected.year,
                &expected.hour, &expected.minute, &expected.second);
    fuzz::check(areEqual(scanTime(text), expected), "a Time field is read as sscanf reads it");
}

void readBack(const std::uint8_t* data, std::size_t size) {
    constexpr long long year = 366LL * 24 * 3600 * 1000000;
    long long time = 0;
    std::memcpy(&time, data, std::min(size, sizeof time));
    const GregorianDate date(time % (2000 * year));
    if (date.getYear() < 0)
        return;
    const TimeFields written{date.getMonth(), date.getDay(),    date.getYear(),
                             date.getHour(),  date.getMinute(), date.getSecond()};
    fuzz::check(areEqual(scanTime(date.formatAsUSDateTime().view()), written), "a written time is read back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    scanTime(text);
    // In a string of its own, which ends where sscanf must stop.
    const std::string ended(untilZero(text));
    if (everyNumberFitsAnInt(ended))
        readLikeTheLibrary(ended);
    readBack(data, size);
    return 0;
}
