#include "export/CsvLine.h"

#include <algorithm>
#include <array>
#include <limits>

#include "qelCore/GregorianDate.h"
#include "qelCore/util/DateConversion.h"

namespace qel {

namespace {

/// Seconds since 1970, rounded down also before it.
long long secondOf(long long time) {
    const long long second = time / microsecondsPerSecond;
    return time % microsecondsPerSecond < 0 ? second - 1 : second;
}

}  // namespace

CsvLine::CsvLine() : timeSecond_(std::numeric_limits<long long>::min()) {}

void CsvLine::begin(long long time) {
    size_ = 0;
    fields_ = 0;
    addTime(time);
}

void CsvLine::addTime(long long time) {
    // Events come in crowds: most lines of a busy log repeat the second of the line before.
    const long long second = secondOf(time);
    if (second != timeSecond_) {
        std::array<char, GregorianDate::maxTextSize> text;
        const char* end = util::convertUTCDateTimeToGermanTime(time).formatAsUSDateTime(text.data());
        timeText_.assign(text.data(), static_cast<std::size_t>(end - text.data()));
        timeSecond_ = second;
    }
    timeText_.copy(reserve(timeText_.size()), timeText_.size());
    size_ += timeText_.size();
}

void CsvLine::addField(std::string_view text) {
    char* const out = reserve(text.size() + 1);
    *out = ';';
    text.copy(out + 1, text.size());
    size_ += text.size() + 1;
    ++fields_;
}

void CsvLine::addFields(Item::Iterator elements) {
    std::string_view text;
    while (elements.convertAsText(text, scratch_))
        addField(text);
}

void CsvLine::end() {
    const auto missing = static_cast<std::size_t>(std::max(0, valueFields - fields_));
    char* const out = reserve(missing + 1);
    std::fill_n(out, missing, ';');
    out[missing] = '\n';
    size_ += missing + 1;
}

}  // namespace qel
