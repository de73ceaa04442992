#pragma once

#include <cstring>
#include <string_view>

namespace qel {

/// Calls `use` with every stored line of a loaded log: the pieces between its line feeds without the first
/// one, the header. The empty piece behind the last line end counts as a line.
template <class Use>
void forEachLine(std::string_view text, const Use& use) {
    std::size_t start = text.find('\n');
    while (start != std::string_view::npos) {
        ++start;
        const std::size_t end = text.find('\n', start);
        use(text.substr(start, end == std::string_view::npos ? end : end - start));
        start = end;
    }
}

/// The stored lines of a log as a range of text: everything behind the header line.
inline std::string_view storedText(std::string_view text) {
    const std::size_t header = text.find('\n');
    return header == std::string_view::npos ? std::string_view() : text.substr(header + 1);
}

}  // namespace qel
