// Any bytes as texts that come from outside: log lines, printf patterns, separated fields, dates.

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/Check.h"
#include "qelCore/GregorianDate.h"
#include "qelCore/String.h"
#include "qelCore/logging/Log.h"
#include "qelCore/util/DateConversion.h"
#include "qelCore/util/StringFormat.h"

using namespace qel;

namespace {

void checkLogLine(std::string_view text) {
    const std::string line = logging::escaped(text);
    for (const char character : line)
        fuzz::check(static_cast<unsigned char>(character) >= 0x20 && character != 0x7F,
                    "a log line is one plain line");
    fuzz::check(logging::escaped(line) == line, "escaping is done once");
}

void checkFields(const String& text) {
    String joined;
    bool first = true;
    for (const String& piece : text.split(';')) {
        if (!first)
            joined += ';';
        first = false;
        joined += piece;
    }
    fuzz::check(joined == text, "the pieces and their separators are the text");
    String replaced = text;
    replaced.replace_all(";", ";;");
    fuzz::check(replaced.size() + 1 == text.size() + text.split(';').size(),
                "every separator is replaced once");
    text.trim_spaces_newlines();
}

void checkDate(const std::uint8_t* data, std::size_t size) {
    int fields[7] = {};
    std::memcpy(fields, data, size < sizeof fields ? size : sizeof fields);
    const GregorianDate date(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], fields[6]);
    fuzz::check(date.formatAsUSDateTime().size() <= GregorianDate::maxTextSize, "every date fits its buffer");
    const UTCDateTime time = date.asUTCDateTime();
    fuzz::check(GregorianDate(time).asUTCDateTime() == time, "every time comes back from its fields");
    util::convertUTCDateTimeToGermanTime(date.asUTCDateTimeLocalTime()).formatAsShortTextDateTime();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    const String text(std::string_view(reinterpret_cast<const char*>(data), size));
    checkLogLine(text.view());
    checkFields(text);
    checkDate(data, size);
    // Width and precision beyond reason are refused, or would be honoured with as many blanks.
    if (size < 6)
        util::stringFormat(text, 1, "two", 3.0);
    return 0;
}
