#pragma once

#include <cstddef>
#include <string_view>

namespace qel {

/// The numbers of a Time field in their order there; what the text does not supply stays 0.
struct TimeFields {
    int month = 0;
    int day = 0;
    int year = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;

    /// A month of 1 to 12 in a year of 1900 to 2100; nothing else is looked at.
    bool isPlausible() const { return month >= 1 && month <= 12 && year >= 1900 && year <= 2100; }
};

/// Reads as much as fits of "%d/%d/%d %d:%d:%d", with the grammar of sscanf: blanks before a number, a sign
/// and a blank of any length (or none) between date and time are accepted. Numbers beyond an int become the
/// nearest one.
TimeFields scanTime(std::string_view text);

/// One line of an exported log as slices of the loaded text, which must outlive it. The parameters are found
/// when they are asked for, since most lines are counted without them.
struct LineView {
    explicit LineView(std::string_view text);

    /// The line had at least four fields; otherwise all fields are empty.
    bool parsed = false;
    std::string_view time;
    std::string_view user;
    std::string_view device;
    std::string_view event;
    /// Everything behind the fourth field, from its separator on; empty when the line ends there.
    std::string_view rest;

    /// The field with this index behind the event. Its data pointer is null when the line has no such field.
    std::string_view param(std::size_t index) const;
    bool hasParam(std::size_t index) const { return param(index).data() != nullptr; }

    /// The first `count` fields behind the event into `params`; false when the line has fewer.
    bool firstParams(std::string_view* params, std::size_t count) const;

  private:
    /// A field as it reaches whoever takes C strings.
    std::string_view asText(std::string_view field) const;

    bool hasZero_ = false;
};

/// The line without blanks, tabs, carriage returns and line feeds at both ends.
std::string_view trimmed(std::string_view line);

/// The user under which reports count a line: every weblink recipient is "Weblink".
inline bool isWeblinkRecipient(std::string_view user) {
    return user.starts_with("invite-");
}
inline std::string_view reportUserOf(std::string_view user) {
    return isWeblinkRecipient(user) ? std::string_view("Weblink") : user;
}

/// A text as it reaches whoever takes C strings: up to its first zero byte.
std::string_view untilZero(std::string_view text);

}  // namespace qel
