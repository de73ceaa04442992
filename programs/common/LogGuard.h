#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "common/TextGuard.h"
#include "qelCore/String.h"

namespace qel::programs {

/// Cleans the texts that a report is made of, and keeps account of what it changed: how many field texts, in which
/// lines. A text that holds nothing worse than backslashes (a user of a domain) counts once however often it
/// occurs. For one thread.
class LogGuard {
  public:
    /// How many line numbers are kept for each log.
    static constexpr std::size_t linesShown = 5;

    /// What was changed in one source of texts.
    struct Changes {
        std::string source;
        std::uint64_t texts = 0;
        std::vector<std::uint64_t> lines;  ///< the first few, counted from 1, the header included
    };

    /// Cleans an exported log in place; to be called for one in which a DangerScan found something. The numbers that the
    /// reports read from it stay the same: blanks at the ends of lines, the Time field and numbers behind
    /// white space keep their meaning.
    void cleanLog(String& log, const std::string& source);

    /// Cleans one text (a group's name, the server's name).
    std::string cleanText(std::string_view text, const std::string& source);

    const std::vector<Changes>& changes() const { return changes_; }
    std::uint64_t changedTexts() const;
    /// "3 texts of the interaction log (lines 2, 7, 9) and 1 of the group names"; empty without any.
    std::string account() const;

  private:
    /// Lets texts be looked up without being copied.
    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };

    void cleanLine(std::string& out, std::string_view line, std::uint64_t number, Changes& changes);
    void note(Changes& changes, Danger danger, std::string_view text, std::uint64_t line);
    bool isFirstBackslash(std::string_view text);
    Changes& changesOf(const std::string& source);

    std::vector<Changes> changes_;
    std::unordered_set<std::string, TextHash, std::equal_to<>> backslashed_;
};

}  // namespace qel::programs
