#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qel::programs {

/// Makes texts from outside harmless for a report page, into whose markup and scripts they go as they are.
///
/// Quotes, backslashes, angle brackets, ampersands, control characters, marks that turn the writing direction and
/// the Unicode line and paragraph separators each become a look-alike followed by U+2060, an invisible sign; the
/// fourth of four square brackets in a row too, since the page's own marks are made of four; and the two names
/// that a script object cannot hold as members beside its own, `__proto__` and `xLabel`, get the sign at their
/// end. U+2060 itself is replaced as well, so it stands in cleaned texts only where something was replaced:
/// different texts stay different, every number in a report stays what it was, and the original can be had back.
/// Bytes that are no UTF-8 stay; a browser shows them as replacement characters.

/// What a text holds that has to be replaced.
enum class Danger {
    none,
    backslash,  ///< nothing but backslashes, as in "CLINIC\anna"
    other,
};

/// What of a text is whitespace that readers of numbers skip; it becomes plain blanks there, so that numbers are
/// read from a cleaned text as from the original.
enum class Skipped { nowhere, atStart, everywhere };

/// Appends the cleaned text to `out`.
Danger appendClean(std::string& out, std::string_view text, Skipped skipped = Skipped::nowhere);

/// The same for a text that becomes a member of a script object: a user's or a group's name.
Danger appendCleanName(std::string& out, std::string_view name);
bool isReservedName(std::string_view name);

/// The cleaned name, or any other text.
std::string cleanText(std::string_view text);

/// The text that `cleanText` was made of.
std::string originalText(std::string_view cleaned);

/// Whether a text surely holds nothing to be replaced but perhaps a reserved name; made for short texts.
bool isPlain(std::string_view text);

/// Looks at a large text piece by piece as it is read, and tells whether it may hold anything that has to be
/// replaced, reserved names included: a look that is sometimes wrong to the careful side. Line ends and carriage
/// returns before them are no danger. Counts the line feeds on the way.
class DangerScan {
  public:
    void look(std::string_view piece);
    /// To be asked behind the last piece.
    bool foundDanger() const;
    std::uint64_t lines() const { return lines_; }

  private:
    bool dangerous_ = false;
    std::uint64_t lines_ = 0;
    unsigned char last_ = '\n';
};

}  // namespace qel::programs
