#pragma once

#include <concepts>
#include <initializer_list>
#include <type_traits>

#include "qelCore/Export.h"
#include "qelCore/String.h"

namespace qel::util {

/// One argument of `stringFormat`, its type put away so that the formatting library stays out of this header.
/// It refers to texts and does not copy them.
struct FormatArgument {
    enum class Kind : unsigned char {
        character,
        signedInt,
        unsignedInt,
        signedLong,
        unsignedLong,
        real,
        text,
        pointer
    };

    FormatArgument(char value) : kind(Kind::character), signedValue(value) {}
    FormatArgument(bool value) : kind(Kind::signedInt), signedValue(value ? 1 : 0) {}
    template <std::integral T>
    requires(!std::same_as<T, char> && !std::same_as<T, bool>) FormatArgument(T value) {
        if constexpr (std::is_signed_v<T>) {
            kind = sizeof(T) <= sizeof(int) ? Kind::signedInt : Kind::signedLong;
            signedValue = value;
        } else {
            kind = sizeof(T) <= sizeof(int) ? Kind::unsignedInt : Kind::unsignedLong;
            unsignedValue = value;
        }
    }
    FormatArgument(double value) : kind(Kind::real), realValue(value) {}
    FormatArgument(const char* value) : kind(Kind::text), textValue(value) {}
    FormatArgument(const String& value) : kind(Kind::text), textValue(value.c_str()) {}
    FormatArgument(const std::string& value) : kind(Kind::text), textValue(value.c_str()) {}
    FormatArgument(const void* value) : kind(Kind::pointer), pointerValue(value) {}

    Kind kind;
    union {
        long long signedValue;
        unsigned long long unsignedValue;
        double realValue;
        const char* textValue;
        const void* pointerValue;
    };
};

QELCORE_EXPORT String stringFormatArguments(const char* pattern,
                                            std::initializer_list<FormatArgument> arguments);

/// A text made from a printf pattern: "%s", "%d", "%f" and their flags, width and precision as in C ("%f"
/// prints six decimals), independent of the locale. Texts are passed as their C strings. A pattern that asks
/// for what its arguments are not logs "util::stringFormat error: " and the reason at error level and comes
/// back unformatted; nothing is thrown. Any thread. Text of users is an argument, never the pattern.
template <class... Args>
String stringFormat(const char* pattern, const Args&... args) {
    return stringFormatArguments(pattern, {FormatArgument(args)...});
}

}  // namespace qel::util
