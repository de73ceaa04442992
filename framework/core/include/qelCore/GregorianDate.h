#pragma once

#include <cstddef>

#include "qelCore/Export.h"
#include "qelCore/String.h"
#include "qelCore/System.h"

namespace qel {

/// A calendar date and time of day, broken down into its fields, in the Gregorian calendar extended both
/// ways; which time zone the fields are of is known to whoever made it. A value type, used from any thread,
/// one thread at a time each. Fields may hold any int: texts print them as they are, and the conversions
/// carry what exceeds (month 13 is the next January, second -1 the last second before) and saturate at the
/// ends of the 64-bit time.
class QELCORE_EXPORT GregorianDate {
  public:
    /// 1 January 1970, 00:00:00.
    constexpr GregorianDate() = default;
    /// The fields of a time in UTC.
    explicit GregorianDate(UTCDateTime time);
    constexpr GregorianDate(int year, int month, int day, int hour = 0, int minute = 0, int second = 0,
                            int microsecond = 0)
        : year_(year),
          month_(month),
          day_(day),
          hour_(hour),
          minute_(minute),
          second_(second),
          microsecond_(microsecond) {}

    static const char* getStaticClassName() { return "GregorianDate"; }

    constexpr int getYear() const { return year_; }
    constexpr int getMonth() const { return month_; }    ///< 1 to 12
    constexpr int getDay() const { return day_; }        ///< 1 to 31
    constexpr int getHour() const { return hour_; }      ///< 0 to 23
    constexpr int getMinute() const { return minute_; }  ///< 0 to 59
    constexpr int getSecond() const { return second_; }  ///< 0 to 59
    constexpr int getMicrosecond() const { return microsecond_; }

    /// The time at which a clock in UTC shows these fields.
    UTCDateTime asUTCDateTime() const;

    /// The time at which a clock in Germany (Europe/Berlin, whatever zone the machine is in) shows these
    /// fields. In the hour that October has twice it is the first; in the hour that March leaves out the
    /// clock runs on, so 02:30 means 03:30 summer time. Opposite of `util::convertUTCDateTimeToGermanTime`,
    /// except in the second October hour.
    UTCDateTime asUTCDateTimeLocalTime() const;

    /// Enough for any fields in either form below.
    static constexpr std::size_t maxTextSize = 80;

    /// "MM/DD/YYYY HH:MM:SS", 24 hours, zero-padded, in any locale.
    String formatAsUSDateTime() const;
    /// The same text into a caller's buffer of at least `maxTextSize` bytes, not zero-terminated; returns its
    /// end.
    char* formatAsUSDateTime(char* out) const;

    /// By default (null) "05 Mar 2021 14:05". A pattern may hold %d %m %Y %H %M %S (zero-padded numbers), %b
    /// %B (the English month, three letters or whole) and %%; other characters, and a % before anything else,
    /// stand for themselves. In any locale.
    String formatAsShortTextDateTime(const char* pattern = nullptr) const;

    /// The name of a month, 1 to 12, in the language "en" or "de" (any other language: English). Any other
    /// month has an empty name.
    static String getMonthName(int month, const char* language);

    friend constexpr bool operator==(const GregorianDate&, const GregorianDate&) = default;

  private:
    int year_ = 1970;
    int month_ = 1;
    int day_ = 1;
    int hour_ = 0;
    int minute_ = 0;
    int second_ = 0;
    int microsecond_ = 0;
};

}  // namespace qel
