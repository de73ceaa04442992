#include "common/Times.h"

#include <algorithm>
#include <cstdio>

#include "qelCore/GregorianDate.h"
#include "qelCore/System.h"

namespace qel::programs {
namespace {

constexpr int mostDecimals = 6;

/// Takes pieces off the front of a text.
class Scanner {
  public:
    explicit Scanner(const std::string& text) : at_(text.data()), end_(text.data() + text.size()) {}

    bool digits(int count, int& value) {
        value = 0;
        for (int i = 0; i < count; ++i) {
            if (at_ == end_ || *at_ < '0' || *at_ > '9')
                return false;
            value = value * 10 + (*at_++ - '0');
        }
        return true;
    }
    bool take(char wanted) {
        if (at_ == end_ || *at_ != wanted)
            return false;
        ++at_;
        return true;
    }
    bool nextIsDigit() const { return at_ != end_ && *at_ >= '0' && *at_ <= '9'; }
    bool atEnd() const { return at_ == end_; }

  private:
    const char* at_;
    const char* end_;
};

bool isLeap(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int daysIn(int year, int month) {
    constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : days[month - 1];
}

bool isDate(int year, int month, int day) {
    return year >= 1 && month >= 1 && month <= 12 && day >= 1 && day <= daysIn(year, month);
}

/// All of the local days from the first to the one before the second.
TimeSpan localSpan(const GregorianDate& first, const GregorianDate& behind) {
    return {first.asUTCDateTimeLocalTime(), behind.asUTCDateTimeLocalTime() - 1};
}

/// The rest of an instant behind its date: THH:MM:SS[.ffffff](Z|±HH:MM).
bool parseClock(Scanner& scan, int year, int month, int day, std::int64_t& time) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (!scan.digits(2, hour) || !scan.take(':') || !scan.digits(2, minute) || !scan.take(':') ||
        !scan.digits(2, second) || hour > 23 || minute > 59 || second > 59)
        return false;
    int microsecond = 0;
    if (scan.take('.')) {
        int decimals = 0;
        for (; decimals < mostDecimals && scan.nextIsDigit(); ++decimals) {
            int digit = 0;
            scan.digits(1, digit);
            microsecond = microsecond * 10 + digit;
        }
        if (decimals == 0 || scan.nextIsDigit())
            return false;
        for (; decimals < mostDecimals; ++decimals)
            microsecond *= 10;
    }
    int offsetMinutes = 0;
    if (!scan.take('Z') && !scan.take('z')) {
        const bool west = scan.take('-');
        int hours = 0;
        int minutes = 0;
        if ((!west && !scan.take('+')) || !scan.digits(2, hours) || !scan.take(':') ||
            !scan.digits(2, minutes) || hours > 23 || minutes > 59)
            return false;
        offsetMinutes = (hours * 60 + minutes) * (west ? -1 : 1);
    }
    if (!scan.atEnd())
        return false;
    time = GregorianDate(year, month, day, hour, minute, second, microsecond).asUTCDateTime() -
           offsetMinutes * 60LL * microsecondsPerSecond;
    return true;
}

bool parse(const std::string& text, TimeSpan& span) {
    Scanner scan(text);
    int year = 0;
    if (!scan.digits(4, year) || year < 1)
        return false;
    if (scan.atEnd()) {
        span = localSpan({year, 1, 1}, {year + 1, 1, 1});
        return true;
    }
    if (!scan.take('-'))
        return false;
    if (scan.take('Q')) {
        int quarter = 0;
        if (!scan.digits(1, quarter) || !scan.atEnd() || quarter < 1 || quarter > 4)
            return false;
        span = localSpan({year, quarter * 3 - 2, 1}, {year, quarter * 3 + 1, 1});
        return true;
    }
    int month = 0;
    if (!scan.digits(2, month) || month < 1 || month > 12)
        return false;
    if (scan.atEnd()) {
        span = localSpan({year, month, 1}, {year, month + 1, 1});
        return true;
    }
    int day = 0;
    if (!scan.take('-') || !scan.digits(2, day) || !isDate(year, month, day))
        return false;
    if (scan.atEnd()) {
        span = localSpan({year, month, day}, {year, month, day + 1});
        return true;
    }
    if (!scan.take('T') && !scan.take('t') && !scan.take(' '))
        return false;
    std::int64_t time = 0;
    if (!parseClock(scan, year, month, day, time))
        return false;
    span = {time, time};
    return true;
}

}  // namespace

bool parseTime(const std::string& text, TimeSpan& span, std::string& error) {
    if (parse(text, span))
        return true;
    error = '"' + text +
            "\" is not a time, expected one like 2026-03-01T08:00:00+01:00 (with its offset, or Z), "
            "2026-03-01, 2026-03, "
            "2026-Q1 or 2026";
    return false;
}

std::string formatUtc(std::int64_t time) {
    const GregorianDate date(time);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", date.getYear(), date.getMonth(),
                  date.getDay(), date.getHour(), date.getMinute(), date.getSecond(), date.getMicrosecond());
    return text;
}

std::int64_t wallClock() {
    return System::getUTCDateTime();
}

}  // namespace qel::programs
