// Any text as a time on the command line: refused with a sentence, or a span that begins before it ends and whose bounds,
// written in full, are read again to the same.

#include <cstdint>
#include <string>

#include "common/Times.h"
#include "fuzz/Check.h"

using namespace qel;
using namespace qel::programs;

namespace {

/// Years of four digits are what can be written.
bool canBeWritten(std::int64_t time) {
    const std::string text = formatUtc(time);
    return text.size() == std::string("2026-03-01T07:00:00.000001Z").size() && text[0] != '-' &&
           !text.starts_with("0000");
}

void readAgain(std::int64_t time) {
    if (!canBeWritten(time))
        return;
    TimeSpan span;
    std::string error;
    fuzz::check(parseTime(formatUtc(time), span, error), "a written time can be read");
    fuzz::check(span.first == time && span.last == time, "a written time is read back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    TimeSpan span;
    std::string error;
    if (!parseTime(text, span, error)) {
        fuzz::check(!error.empty(), "a refusal has a sentence");
        return 0;
    }
    fuzz::check(error.empty(), "what was read has no sentence");
    fuzz::check(span.first <= span.last, "a span begins before it ends");
    readAgain(span.first);
    readAgain(span.last);
    return 0;
}
