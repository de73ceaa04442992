// How fast does a time become the German text of an exported line, and back? The floor for both is what the C library
// does with the process in that zone: localtime_r with strftime, and mktime. Times come in the order of a log,
// six seconds apart. Unique times are asked for by one thread and by two.

#include <stdlib.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <thread>
#include <vector>

#include "qelCore/GregorianDate.h"
#include "qelCore/System.h"
#include "qelCore/util/DateConversion.h"
#include "support/Figures.h"

namespace {

using namespace qel;

constexpr int rounds = 5;
constexpr UTCDateTime firstTime = 1700000000000000;
constexpr UTCDateTime step = 6 * microsecondsPerSecond;

// Keeps the compiler from leaving out what is measured.
volatile long long sink = 0;

template <class Work>
double perSecond(long count, const Work& work) {
    std::vector<double> rates;
    for (int round = 0; round < rounds; ++round)
        rates.push_back(static_cast<double>(count) / bench::seconds([&] { work(count); }));
    return bench::median(std::move(rates));
}

void toText(long count) {
    std::array<char, GregorianDate::maxTextSize> text;
    for (long i = 0; i < count; ++i) {
        util::convertUTCDateTimeToGermanTime(firstTime + i * step).formatAsUSDateTime(text.data());
        sink = sink + text[18];
    }
}

void toTextByTheSystem(long count) {
    std::array<char, 64> text;
    for (long i = 0; i < count; ++i) {
        const time_t seconds = (firstTime + i * step) / microsecondsPerSecond;
        tm fields{};
        localtime_r(&seconds, &fields);
        std::strftime(text.data(), text.size(), "%m/%d/%Y %H:%M:%S", &fields);
        sink = sink + text[18];
    }
}

void toTime(long count) {
    for (long i = 0; i < count; ++i) {
        const auto second = static_cast<int>(i % 60);
        const auto day = static_cast<int>(i * 360 / count);
        sink =
            sink + GregorianDate(2025, 1 + day / 30, 1 + day % 30, 12, 30, second).asUTCDateTimeLocalTime();
    }
}

void toTimeByTheSystem(long count) {
    for (long i = 0; i < count; ++i) {
        const auto day = static_cast<int>(i * 360 / count);
        tm fields{};
        fields.tm_year = 125;
        fields.tm_mon = day / 30;
        fields.tm_mday = 1 + day % 30;
        fields.tm_hour = 12;
        fields.tm_min = 30;
        fields.tm_sec = static_cast<int>(i % 60);
        fields.tm_isdst = -1;
        sink = sink + mktime(&fields);
    }
}

void uniqueTimes(long count) {
    long long last = 0;
    for (long i = 0; i < count; ++i)
        last = System::getUTCDateTimeUnique();
    sink = last;
}

void uniqueTimesOfTwoThreads(long count) {
    std::thread other([count] {
        for (long i = 0; i < count / 2; ++i)
            System::getUTCDateTimeUnique();
    });
    uniqueTimes(count - count / 2);
    other.join();
}

}  // namespace

int main() {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    const long count = bench::sizeFrom("QEL_BENCH_TIMES", 2000000);
    bench::print("times_to_german_text", perSecond(count, toText), "times/s",
                 perSecond(count, toTextByTheSystem));
    bench::print("german_fields_to_times", perSecond(count, toTime), "times/s",
                 perSecond(count, toTimeByTheSystem));
    bench::print("unique_times", perSecond(count, uniqueTimes), "times/s");
    bench::print("unique_times_two_threads", perSecond(count, uniqueTimesOfTwoThreads), "times/s");
    return 0;
}
