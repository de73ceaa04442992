#include "qelCore/String.h"

#include <algorithm>
#include <ostream>

#include "base/FileContent.h"

namespace qel {

String& String::replace_all(std::string_view what, std::string_view with) {
    if (what.empty())
        return *this;
    std::size_t found = text_.find(what);
    if (found == std::string::npos)
        return *this;
    std::string replaced;
    replaced.reserve(text_.size() + with.size());
    std::size_t copied = 0;
    for (; found != std::string::npos; found = text_.find(what, copied)) {
        replaced.append(text_, copied, found - copied);
        replaced.append(with);
        copied = found + what.size();
    }
    replaced.append(text_, copied);
    text_ = std::move(replaced);
    return *this;
}

Vector<String> String::split(char separator) const {
    Vector<String> pieces;
    pieces.reserve(static_cast<std::size_t>(std::count(text_.begin(), text_.end(), separator)) + 1);
    const std::string_view text(text_);
    std::size_t start = 0;
    for (std::size_t end = text.find(separator); end != std::string_view::npos;
         end = text.find(separator, start)) {
        pieces.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    pieces.emplace_back(text.substr(start));
    return pieces;
}

String String::trim_spaces_newlines() const {
    constexpr std::string_view trimmed = " \t\r\n";
    const std::size_t first = text_.find_first_not_of(trimmed);
    if (first == std::string::npos)
        return String();
    const std::size_t last = text_.find_last_not_of(trimmed);
    return String(text_.data() + first, last - first + 1);
}

bool String::begins_with(std::string_view prefix) const noexcept {
    return view().starts_with(prefix);
}

bool String::loadFromFile(const char* path) {
    return readWholeFile(path, text_);
}

bool String::saveToFile(const char* path) const {
    return writeWholeFile(path, text_);
}

std::ostream& operator<<(std::ostream& stream, const String& text) {
    return stream << text.view();
}

}  // namespace qel
