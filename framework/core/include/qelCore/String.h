#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "qelCore/Export.h"
#include "qelCore/Vector.h"

namespace qel {

class String;

/// What a String compares with and is joined to: texts of the standard library and C strings.
template <class T>
concept StringLike = std::convertible_to<const T&, std::string_view> && !std::same_as<T, String>;

/// A text: a byte string that usually holds UTF-8 and may hold any byte, zeros included. A value type over
/// std::string; separate objects may be used from separate threads at once. Order and equality are those of
/// the bytes as unsigned values, whatever the locale. It converts to `const char*` (which ends at the first
/// zero byte) and to std::string_view (whole); where both fit, as in the constructor of std::string_view,
/// write `view()` or `str()`.
class QELCORE_EXPORT String {
  public:
    String() = default;
    /// A null pointer makes an empty text.
    String(const char* text) : text_(text == nullptr ? "" : text) {}
    String(const char* bytes, std::size_t size) : text_(bytes, size) {}
    String(std::string_view text) : text_(text) {}
    String(std::string text) noexcept : text_(std::move(text)) {}

    const char* c_str() const noexcept { return text_.c_str(); }
    const char* data() const noexcept { return text_.data(); }
    const std::string& str() const noexcept { return text_; }
    std::string_view view() const noexcept { return text_; }
    operator const char*() const noexcept { return text_.c_str(); }
    operator std::string_view() const noexcept { return text_; }
    /// A text is no condition: ask `empty()`.
    explicit operator bool() const = delete;

    std::size_t size() const noexcept { return text_.size(); }
    std::size_t length() const noexcept { return text_.size(); }
    bool empty() const noexcept { return text_.empty(); }
    void clear() noexcept { text_.clear(); }
    void reserve(std::size_t bytes) { text_.reserve(bytes); }
    /// The byte at `index`, 0 to size() (not included).
    template <std::integral I>
    char operator[](I index) const {
        return text_[static_cast<std::size_t>(index)];
    }
    const char* begin() const noexcept { return text_.data(); }
    const char* end() const noexcept { return text_.data() + text_.size(); }

    String& operator+=(const String& more) {
        text_ += more.text_;
        return *this;
    }
    String& operator+=(const char* more) {
        if (more != nullptr)
            text_ += more;
        return *this;
    }
    String& operator+=(std::string_view more) {
        text_ += more;
        return *this;
    }
    String& operator+=(const std::string& more) {
        text_ += more;
        return *this;
    }
    String& operator+=(char more) {
        text_ += more;
        return *this;
    }
    String& append(const char* bytes, std::size_t size) {
        text_.append(bytes, size);
        return *this;
    }

    /// Replaces every occurrence of `what` by `with` in one pass from the left that goes on behind what it
    /// inserted: a replacement that holds `what` again is left alone. An empty `what` changes nothing.
    /// Returns this text.
    String& replace_all(std::string_view what, std::string_view with);

    /// The pieces between the separators, every empty one included, also before a leading and after a
    /// trailing separator: n separators give n + 1 pieces, an empty text gives one empty piece.
    Vector<String> split(char separator) const;

    /// A copy without the blanks, tabs, carriage returns and line feeds at both ends; those inside stay.
    String trim_spaces_newlines() const;

    bool begins_with(std::string_view prefix) const noexcept;

    /// Replaces this text by the whole content of a file, of any size that memory holds. False, with the text
    /// as it was, when there is no such file, it is a directory, or it cannot be read to its end: a pipe or a
    /// device must end after at most 1 GiB.
    bool loadFromFile(const char* path);

    /// Creates or replaces the file with exactly this text. The text goes to a second file that then takes
    /// the name, so a failed attempt (false) leaves an older file whole; a symbolic link, a device or a file
    /// in a folder that takes no new files is written in place. Not flushed to the disk.
    bool saveToFile(const char* path) const;

    friend bool operator==(const String& a, const String& b) noexcept { return a.text_ == b.text_; }
    friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
        return a.text_ <=> b.text_;
    }
    template <StringLike T>
    friend bool operator==(const String& a, const T& b) {
        return a.view() == std::string_view(b);
    }
    template <StringLike T>
    friend std::strong_ordering operator<=>(const String& a, const T& b) {
        return a.view() <=> std::string_view(b);
    }

    friend String operator+(String a, const String& b) { return std::move(a += b); }
    template <StringLike T>
    friend String operator+(String a, const T& b) {
        return std::move(a += std::string_view(b));
    }
    template <StringLike T>
    friend String operator+(const T& a, const String& b) {
        String joined{std::string_view(a)};
        joined += b;
        return joined;
    }
    friend String operator+(String a, char b) { return std::move(a += b); }
    /// A number is not text, and a text no pointer to add to.
    template <std::integral I>
    requires(!std::same_as<I, char>) friend String operator+(const String&, I) = delete;

  private:
    std::string text_;
};

QELCORE_EXPORT std::ostream& operator<<(std::ostream& stream, const String& text);

}  // namespace qel

template <>
struct std::hash<qel::String> {
    std::size_t operator()(const qel::String& text) const noexcept {
        return std::hash<std::string_view>()(text.view());
    }
};
