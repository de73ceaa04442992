// Any bytes as an exported log that the guard cleans: line by line, dates and numbers of the parameters stay what they
// were, texts come back, and a log that needs no cleaning stays as it is.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <string_view>

#include "common/LogGuard.h"
#include "fuzz/Check.h"
#include "qelCore/String.h"
#include "qelCore/logging/Log.h"

using namespace qel;
using namespace qel::programs;

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view line) {
    const std::size_t first = line.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : line.substr(first, line.find_last_not_of(blanks) - first + 1);
}

std::string_view cut(std::string_view& left, char end) {
    const std::size_t length = std::min(left.find(end), left.size());
    const std::string_view piece = left.substr(0, length);
    left.remove_prefix(std::min(length + 1, left.size()));
    return piece;
}

/// What a stream reads as a number from the front of a text.
long long numberOf(std::string_view text) {
    std::istringstream in{std::string(text)};
    long long number = 0;
    in >> number;
    return number;
}

/// The numbers of a Time field; with widths, so that none is too large to be told.
std::array<int, 6> datesOf(std::string_view text) {
    std::array<int, 6> n{};
    std::sscanf(std::string(text).c_str(), "%9d/%9d/%9d %9d:%9d:%9d", &n[0], &n[1], &n[2], &n[3], &n[4],
                &n[5]);
    return n;
}

void checkLine(std::string_view before, std::string_view after) {
    before = trimmed(before);
    for (std::size_t field = 0; !before.empty() || !after.empty(); ++field) {
        const std::string_view original = cut(before, ';');
        const std::string_view cleaned = cut(after, ';');
        if (field == 0)
            fuzz::check(datesOf(original) == datesOf(cleaned), "dates stay what they were");
        else if (field > 3)
            fuzz::check(numberOf(original) == numberOf(cleaned), "numbers stay what they were");
        else
            fuzz::check(originalText(cleaned) == original, "the original comes back");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    DangerScan scan;
    scan.look(text.substr(0, size / 3));
    scan.look(text.substr(size / 3));
    String log(text);
    LogGuard guard;
    guard.cleanLog(log, "log");
    if (!scan.foundDanger())
        fuzz::check(guard.changedTexts() == 0, "a log without danger is not changed");
    std::string_view before = text;
    std::string_view after = log.view();
    while (!before.empty() || !after.empty())
        checkLine(cut(before, '\n'), cut(after, '\n'));
    return 0;
}
