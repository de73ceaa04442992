#include "converter/AccessKeys.h"

#include <charconv>

namespace qel {

namespace {

/// A day number as it is written into a key: no sign, no zero in front, within an int.
bool readDay(std::string_view text, int& day) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), day);
    const bool isCanonical = text.size() == 1 || (!text.empty() && text.front() != '0');
    return error == std::errc() && end == text.data() + text.size() && day >= 0 && isCanonical;
}

}  // namespace

AccessKeys::Key AccessKeys::keyOf(std::string_view prefixText, int day, std::string_view identifier) {
    const std::string joined =
        std::string(prefixText) + "-" + std::to_string(day) + "-" + std::string(identifier);
    const std::string_view text = joined;
    const std::size_t second = text.rfind('-');
    const std::size_t first = second == 0 ? std::string_view::npos : text.rfind('-', second - 1);
    int found = 0;
    if (first != std::string_view::npos && readDay(text.substr(first + 1, second - first - 1), found))
        return {prefix(text.substr(0, first)), found, identifiers_.numberOfCopy(text.substr(second + 1))};
    // Nothing of the plain form joins to this text: it stands for itself, on a day that no plain triple has.
    return {prefix(text), -1, identifiers_.numberOfCopy("")};
}

}  // namespace qel
