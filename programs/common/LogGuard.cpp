#include "common/LogGuard.h"

#include <algorithm>
#include <utility>

namespace qel::programs {
namespace {

/// The part of a line that readers look at; blanks and line ends around it do not count.
std::string_view trimmed(std::string_view line) {
    constexpr std::string_view ends = " \t\r\n";
    const std::size_t first = line.find_first_not_of(ends);
    if (first == std::string_view::npos)
        return {};
    return line.substr(first, line.find_last_not_of(ends) - first + 1);
}

constexpr std::size_t userField = 1;
constexpr std::size_t firstParam = 4;

std::string_view userOf(std::string_view line) {
    const std::size_t start = line.find(';');
    return start == std::string_view::npos ? std::string_view()
                                           : line.substr(start + 1, line.find(';', start + 1) - start - 1);
}

/// Where readers skip white space of a field: before every number of the Time field, and before a number that is
/// a parameter.
Skipped skippedIn(std::size_t field) {
    return field == 0 ? Skipped::everywhere : field >= firstParam ? Skipped::atStart : Skipped::nowhere;
}

}  // namespace

void LogGuard::cleanLog(String& log, const std::string& source) {
    Changes& changes = changesOf(source);
    std::string cleaned;
    cleaned.reserve(log.size() + log.size() / 16);
    std::string_view left = log.view();
    for (std::uint64_t number = 1; !left.empty(); ++number) {
        const std::size_t length = std::min(left.find('\n'), left.size());
        cleanLine(cleaned, left.substr(0, length), number, changes);
        if (length < left.size())
            cleaned += '\n';
        left.remove_prefix(std::min(length + 1, left.size()));
    }
    log = String(std::move(cleaned));
}

void LogGuard::cleanLine(std::string& out, std::string_view line, std::uint64_t number, Changes& changes) {
    std::string_view left = trimmed(line);
    if (isPlain(left) && !isReservedName(userOf(left))) {
        out += left;
        return;
    }
    for (std::size_t field = 0;; ++field) {
        const std::size_t length = std::min(left.find(';'), left.size());
        const std::string_view text = left.substr(0, length);
        note(changes,
             field == userField ? appendCleanName(out, text) : appendClean(out, text, skippedIn(field)), text,
             number);
        if (length == left.size())
            return;
        out += ';';
        left.remove_prefix(length + 1);
    }
}

void LogGuard::note(Changes& changes, Danger danger, std::string_view text, std::uint64_t line) {
    if (danger == Danger::none || (danger == Danger::backslash && !isFirstBackslash(text)))
        return;
    ++changes.texts;
    if (line != 0 && changes.lines.size() < linesShown &&
        (changes.lines.empty() || changes.lines.back() != line))
        changes.lines.push_back(line);
}

bool LogGuard::isFirstBackslash(std::string_view text) {
    if (backslashed_.find(text) != backslashed_.end())
        return false;
    backslashed_.emplace(text);
    return true;
}

std::string LogGuard::cleanText(std::string_view text, const std::string& source) {
    std::string cleaned;
    const Danger danger = appendCleanName(cleaned, text);
    if (danger != Danger::none)
        note(changesOf(source), danger, text, 0);
    return cleaned;
}

LogGuard::Changes& LogGuard::changesOf(const std::string& source) {
    const auto found = std::find_if(changes_.begin(), changes_.end(),
                                    [&](const Changes& changes) { return changes.source == source; });
    return found != changes_.end() ? *found : changes_.emplace_back(Changes{source, 0, {}});
}

std::uint64_t LogGuard::changedTexts() const {
    std::uint64_t texts = 0;
    for (const Changes& changes : changes_)
        texts += changes.texts;
    return texts;
}

std::string LogGuard::account() const {
    std::string account;
    for (const Changes& changes : changes_) {
        if (changes.texts == 0)
            continue;
        account +=
            (account.empty() ? "" : ", ") + std::to_string(changes.texts) + " in the " + changes.source;
        std::string lines;
        for (const std::uint64_t line : changes.lines)
            lines += (lines.empty() ? "" : ", ") + std::to_string(line);
        if (!lines.empty())
            account += std::string(changes.lines.size() == 1 ? " (line " : " (first lines ") + lines + ")";
    }
    return account;
}

}  // namespace qel::programs
