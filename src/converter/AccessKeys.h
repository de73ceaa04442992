#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "converter/Numbering.h"

namespace qel {

/// The once-keys of the viewing charts as numbers.
///
/// Such a key is a joined text, `prefix`-`day`-`identifier`, and different triples may join to the same text,
/// which then counts once: user "a-1" on day 2 with series "x" and user "a" on day 1 with series "2-x". To keep
/// exactly that without building the texts, every text is taken apart in one way, from its end: the identifier
/// holds no dash and the day is a decimal number. Nearly all triples are of that form as they come (DICOM
/// identifiers hold no dash), so their numbers serve at once; the others are joined and taken apart again.
class AccessKeys {
  public:
    struct Key {
        std::uint32_t prefix;
        int day;
        std::uint32_t identifier;
    };

    explicit AccessKeys(TextNumbers& identifiers) : identifiers_(identifiers) {}

    std::uint32_t prefix(std::string_view text) { return prefixes_.numberOfCopy(text); }

    /// Whether the triple is of the form above, so that its own numbers are its key.
    static bool isPlain(int day, std::string_view identifier) {
        return day >= 0 && identifier.find('-') == std::string_view::npos;
    }

    /// The numbers of any triple.
    Key keyOf(std::string_view prefixText, int day, std::string_view identifier);

  private:
    TextNumbers& identifiers_;
    TextNumbers prefixes_;
};

}  // namespace qel
