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
    text_.clear();
    fields_ = 0;
    addTime(time);
}

void CsvLine::addTime(long long time) {
    // Events come in crowds: most lines of a busy log repeat the second of the line before.
    const long long second = secondOf(time);
    if (second != timeSecond_) {
        std::array<char, GregorianDate::maxTextSize> buffer;
        const char* end = util::convertUTCDateTimeToGermanTime(time).formatAsUSDateTime(buffer.data());
        timeText_.assign(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
        timeSecond_ = second;
    }
    text_ += timeText_;
}

void CsvLine::addField(std::string_view text) {
    text_ += ';';
    text_ += text;
    ++fields_;
}

void CsvLine::addFields(Item::Iterator elements) {
    std::string_view text;
    while (elements.convertAsText(text, scratch_))
        addField(text);
}

void CsvLine::end() {
    text_.append(static_cast<std::size_t>(std::max(0, valueFields - fields_)), ';');
    text_ += '\n';
}

}  // namespace qel
