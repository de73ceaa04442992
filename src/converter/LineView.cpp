#include "converter/LineView.h"

#include <algorithm>
#include <cstring>

#include "converter/NumberScan.h"

namespace qel {

namespace {

constexpr char separator = ';';

/// Cuts the first field off `rest` and its separator with it; false when there is no separator.
bool cutField(std::string_view& rest, std::string_view& field) {
    const void* found = rest.empty() ? nullptr : std::memchr(rest.data(), separator, rest.size());
    if (found == nullptr)
        return false;
    const auto length = static_cast<std::size_t>(static_cast<const char*>(found) - rest.data());
    field = rest.substr(0, length);
    rest.remove_prefix(length + 1);
    return true;
}

bool isTrimmed(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

int digits(std::string_view text, std::size_t at, std::size_t count) {
    int number = 0;
    for (std::size_t i = at; i < at + count; ++i)
        number = number * 10 + (text[i] - '0');
    return number;
}

/// The form in which exports write times, "MM/DD/YYYY HH:MM:SS".
bool isExportForm(std::string_view text) {
    constexpr std::string_view form = "00/00/0000 00:00:00";
    if (text.size() != form.size())
        return false;
    for (std::size_t i = 0; i < form.size(); ++i)
        if (form[i] == '0' ? !isDigit(text[i]) : text[i] != form[i])
            return false;
    return true;
}

TimeFields readExportForm(std::string_view text) {
    return {digits(text, 0, 2),  digits(text, 3, 2),  digits(text, 6, 4),
            digits(text, 11, 2), digits(text, 14, 2), digits(text, 17, 2)};
}

}  // namespace

TimeFields scanTime(std::string_view text) {
    if (isExportForm(text))
        return readExportForm(text);
    TimeFields fields;
    NumberScan scan(text);
    (void)(scan.number(fields.month) && scan.literal('/') && scan.number(fields.day) && scan.literal('/') &&
           scan.number(fields.year) && scan.number(fields.hour) && scan.literal(':') &&
           scan.number(fields.minute) && scan.literal(':') && scan.number(fields.second));
    return fields;
}

std::string_view trimmed(std::string_view line) {
    while (!line.empty() && isTrimmed(line.back()))
        line.remove_suffix(1);
    while (!line.empty() && isTrimmed(line.front()))
        line.remove_prefix(1);
    return line;
}

std::string_view untilZero(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

LineView::LineView(std::string_view text) {
    std::string_view left = trimmed(text);
    const char* const end = left.data() + left.size();
    std::string_view first, second, third, fourth;
    if (!cutField(left, first) || !cutField(left, second) || !cutField(left, third))
        return;
    if (cutField(left, fourth))
        rest = std::string_view(left.data() - 1, static_cast<std::size_t>(end - left.data() + 1));
    else
        fourth = left;
    parsed = true;
    hasZero_ = std::memchr(first.data(), 0, static_cast<std::size_t>(end - first.data())) != nullptr;
    time = first;
    user = asText(second);
    device = asText(third);
    event = asText(fourth);
}

std::string_view LineView::asText(std::string_view field) const {
    return hasZero_ ? untilZero(field) : field;
}

std::string_view LineView::param(std::size_t index) const {
    std::string_view left = rest;
    while (!left.empty()) {
        left.remove_prefix(1);
        const std::size_t length = std::min(left.find(separator), left.size());
        if (index-- == 0)
            return asText(left.substr(0, length));
        left.remove_prefix(length);
    }
    return {};
}

bool LineView::firstParams(std::string_view* params, std::size_t count) const {
    std::string_view left = rest;
    for (std::size_t i = 0; i < count; ++i) {
        if (left.empty())
            return false;
        left.remove_prefix(1);
        const std::size_t length = std::min(left.find(separator), left.size());
        params[i] = asText(left.substr(0, length));
        left.remove_prefix(length);
    }
    return true;
}

}  // namespace qel
