#pragma once

#include <string>
#include <vector>

namespace qel::programs {

/// What --help and the man page of one command say. Plain record.
struct HelpPage {
    struct Option {
        std::string name;
        std::string placeholder;  // empty for a flag
        std::string text;
        std::string range;     // of a number, with its unit: "1 to 36500 days"
        std::string fallback;  // the default in words; empty for a flag and what is required
        bool required = false;
    };
    struct Entry {
        std::string word;
        std::string text;
    };

    std::string name;     // "qel-audit record"
    int section = 1;      // of the manual
    std::string summary;  // one line, without full stop
    std::vector<std::string> paragraphs;
    std::vector<Entry> positions;
    std::vector<Option> options;
    std::vector<Entry> entries;  // the commands of a group
    std::vector<std::string> examples;
};

/// Plain text of at most 80 columns.
std::string renderHelp(const HelpPage& page);

/// The same as a manual page for man(1).
std::string renderMan(const HelpPage& page);

/// Text as it stands in a manual page.
std::string manualText(const std::string& text);

/// "qel-audit 1.0.0".
std::string versionLine(const HelpPage& page);

/// The sentence about arguments that no option takes: "--fron is not an option here, perhaps --from".
std::string explainExtras(const HelpPage& page, const std::vector<std::string>& extras);

}  // namespace qel::programs
