#include "common/HelpText.h"

#include <algorithm>

#include "common/Nearest.h"

namespace qel::programs {
namespace {

constexpr std::size_t columns = 80;
constexpr std::size_t textColumn = 26;

// Every command has these; they are described here once.
const std::vector<HelpPage::Option>& commonOptions() {
    static const std::vector<HelpPage::Option> options{
        {"--json", "", "print a machine-readable result, or the error, on standard output", "", "", false},
        {"--quiet", "", "print no messages but errors", "", "", false},
        {"--help", "", "print this help and end", "", "", false},
        {"--version", "", "print the version and end", "", "", false},
    };
    return options;
}

/// Columns that a UTF-8 text takes on a terminal, as far as our own texts go.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

/// `text` filled into lines that start at `indent`; the first continues a line that has reached `column`.
std::string filled(const std::string& text, std::size_t indent, std::size_t column) {
    std::string out(column < indent ? indent - column : 0, ' ');
    std::size_t at = indent;
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t end = std::min(text.find(' ', position), text.size());
        const std::string word = text.substr(position, end - position);
        const std::size_t needed = width(word) + (at > indent ? 1 : 0);
        if (at > indent && at + needed > columns) {
            out += '\n' + std::string(indent, ' ');
            at = indent;
        }
        if (at > indent)
            out += ' ';
        out += word;
        at += width(word) + (at > indent ? 1 : 0);
        position = end + 1;
    }
    return out + '\n';
}

std::string row(const std::string& left, const std::string& right) {
    std::string out = "  " + left;
    std::size_t column = width(out);
    if (column + 2 > textColumn) {
        out += '\n';
        column = 0;
    }
    return out + filled(right, textColumn, column);
}

std::string leftOf(const HelpPage::Option& option) {
    return option.placeholder.empty() ? option.name : option.name + ' ' + option.placeholder;
}

std::string rightOf(const HelpPage::Option& option) {
    if (option.required)
        return option.text + " (required)";
    if (option.fallback.empty())
        return option.text;
    return option.text + " (" + (option.range.empty() ? "" : option.range + ", ") + "default " +
           option.fallback + ')';
}

std::string synopsis(const HelpPage& page) {
    std::string out = page.name;
    for (const HelpPage::Option& option : page.options)
        out += option.required ? ' ' + leftOf(option) : " [" + leftOf(option) + ']';
    for (const HelpPage::Entry& position : page.positions)
        out += ' ' + position.word;
    if (!page.entries.empty())
        out += " COMMAND [OPTION…]";
    return out;
}

/// The synopsis with lines broken between options, never inside one.
std::string filledSynopsis(const HelpPage& page) {
    const std::string whole = synopsis(page);
    std::string out = "Usage: ";
    std::size_t at = width(out);
    constexpr std::size_t indent = 11;
    std::size_t start = 0;
    bool first = true;
    while (start < whole.size()) {
        std::size_t end = start;
        int depth = 0;
        // A piece is a word, a bracketed option, or a required option with its placeholder.
        const bool option = whole.compare(start, 2, "--") == 0;
        int words = option ? 2 : 1;
        for (; end < whole.size(); ++end) {
            if (whole[end] == '[')
                ++depth;
            if (whole[end] == ']')
                --depth;
            if (whole[end] == ' ' && depth == 0 && --words == 0)
                break;
        }
        const std::string piece = whole.substr(start, end - start);
        if (!first && at + 1 + width(piece) > columns) {
            out += '\n' + std::string(indent, ' ');
            at = indent;
        } else if (!first) {
            out += ' ';
            ++at;
        }
        out += piece;
        at += width(piece);
        first = false;
        start = end + 1;
    }
    return out + '\n';
}

std::string roffItem(const std::string& left, const std::string& right) {
    return ".TP\n.B " + manualText(left) + '\n' + manualText(right) + ".\n";
}

/// The summary as a sentence of its own.
std::string sentence(std::string text) {
    if (!text.empty() && text.front() >= 'a' && text.front() <= 'z')
        text.front() = static_cast<char>(text.front() - 'a' + 'A');
    return text + '.';
}

/// A command line that is too long goes on behind a backslash, as a shell takes it.
std::string filledExample(const std::string& line) {
    std::string out;
    std::string rest = "  " + line;
    while (width(rest) > columns) {
        std::size_t end = rest.rfind(' ', columns - 3);
        // An option stays on one line with its value.
        const std::size_t word = rest.rfind(' ', end - 1);
        if (word != std::string::npos && word > 4 && rest.compare(word, 3, " --") == 0)
            end = word;
        out += rest.substr(0, end) + " \\\n";
        rest = "     " + rest.substr(end);
    }
    return out + rest + '\n';
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

std::string dashed(std::string text) {
    std::replace(text.begin(), text.end(), ' ', '-');
    return text;
}

}  // namespace

// A backslash, a dash, and a full stop or quote at the beginning mean something to the formatter.
std::string manualText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else if (c == '\'' && out.empty())
            out += "\\(aq";
        else
            out += c;
    }
    if (!out.empty() && out.front() == '.')
        out.insert(0, "\\&");
    return out;
}

std::string renderHelp(const HelpPage& page) {
    std::string out = filledSynopsis(page) + '\n' + filled(sentence(page.summary), 0, 0);
    for (const std::string& paragraph : page.paragraphs)
        out += '\n' + filled(paragraph, 0, 0);
    if (!page.entries.empty())
        out += "\nCommands:\n";
    for (const HelpPage::Entry& entry : page.entries)
        out += row(entry.word, entry.text);
    if (!page.positions.empty())
        out += "\nArguments:\n";
    for (const HelpPage::Entry& position : page.positions)
        out += row(position.word, position.text);
    out += "\nOptions:\n";
    for (const HelpPage::Option& option : page.options)
        out += row(leftOf(option), rightOf(option));
    for (const HelpPage::Option& option : commonOptions())
        out += row(leftOf(option), rightOf(option));
    if (!page.examples.empty())
        out += page.examples.size() == 1 ? "\nExample:\n" : "\nExamples:\n";
    for (const std::string& example : page.examples)
        out += filledExample(example);
    return out;
}

std::string renderMan(const HelpPage& page) {
    std::string out = ".\\\" Written by '" + page.name + " --man'.\n";
    out += ".TH " + upper(dashed(page.name)) + ' ' + std::to_string(page.section) + " \"\" \"" +
           versionLine(page) + "\" \"Auditing\"\n";
    out += ".SH NAME\n" + manualText(dashed(page.name)) + " \\- " + manualText(page.summary) + '\n';
    out += ".SH SYNOPSIS\n" + manualText(synopsis(page)) + '\n';
    out += ".SH DESCRIPTION\n" + manualText(sentence(page.summary)) + '\n';
    for (const std::string& paragraph : page.paragraphs)
        out += ".PP\n" + manualText(paragraph) + '\n';
    if (!page.entries.empty())
        out += ".SH COMMANDS\n";
    for (const HelpPage::Entry& entry : page.entries)
        out += roffItem(entry.word, entry.text);
    if (!page.positions.empty())
        out += ".SH ARGUMENTS\n";
    for (const HelpPage::Entry& position : page.positions)
        out += roffItem(position.word, position.text);
    out += ".SH OPTIONS\n";
    for (const HelpPage::Option& option : page.options)
        out += roffItem(leftOf(option), rightOf(option));
    for (const HelpPage::Option& option : commonOptions())
        out += roffItem(leftOf(option), rightOf(option));
    if (!page.examples.empty())
        out += ".SH EXAMPLES\n.nf\n";
    for (const std::string& example : page.examples)
        out += manualText(example) + '\n';
    if (!page.examples.empty())
        out += ".fi\n";
    out +=
        ".SH EXIT STATUS\n0 done; 1 done, and a fault was found; 64 usage; 65 bad data; 66 input missing; 69 "
        "service "
        "not reachable; 73 cannot create output; 74 input or output error; 75 temporary, try again; 77 no "
        "permission; 78 configuration.\n";
    return out;
}

std::string versionLine(const HelpPage& page) {
    return page.name.substr(0, page.name.find(' ')) + " " QEL_VERSION;
}

std::string explainExtras(const HelpPage& page, const std::vector<std::string>& extras) {
    std::vector<std::string> names;
    for (const HelpPage::Option& option : page.options)
        names.push_back(option.name);
    for (const HelpPage::Option& option : commonOptions())
        names.push_back(option.name);
    for (const std::string& extra : extras) {
        if (extra.size() < 2 || extra.front() != '-')
            continue;
        const std::string nearest = nearestOf(extra.substr(0, extra.find('=')), names);
        return extra + " is not an option here" + (nearest.empty() ? "" : ", perhaps " + nearest);
    }
    return extras.empty() ? "too many arguments" : '"' + extras.front() + "\" is one argument too many";
}

}  // namespace qel::programs
