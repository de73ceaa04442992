#include "qelCore/util/StringFormat.h"

#include <fmt/printf.h>

#include <algorithm>
#include <array>
#include <exception>
#include <vector>

#include "qelCore/logging/Log.h"
#include "qelCore/logging/MessageStream.h"

namespace qel::util {

namespace {

using Context = fmt::printf_context;
using Argument = fmt::basic_format_arg<Context>;

// More arguments than any pattern of the system has; beyond that they go to the heap.
constexpr std::size_t usualArguments = 16;

template <class T>
Argument wrap(const T& value) {
    return fmt::basic_format_args<Context>(fmt::make_format_args<Context>(value)).get(0);
}

Argument wrapArgument(const FormatArgument& argument) {
    using Kind = FormatArgument::Kind;
    switch (argument.kind) {
        case Kind::character:
            return wrap(static_cast<char>(argument.signedValue));
        case Kind::signedInt:
            return wrap(static_cast<int>(argument.signedValue));
        case Kind::unsignedInt:
            return wrap(static_cast<unsigned>(argument.unsignedValue));
        case Kind::signedLong:
            return wrap(argument.signedValue);
        case Kind::unsignedLong:
            return wrap(argument.unsignedValue);
        case Kind::real:
            return wrap(argument.realValue);
        case Kind::text:
            return wrap(argument.textValue);
        case Kind::pointer:
            return wrap(argument.pointerValue);
    }
    return {};
}

String formatWith(const char* pattern, Argument* wrapped, std::initializer_list<FormatArgument> arguments) {
    std::transform(arguments.begin(), arguments.end(), wrapped, wrapArgument);
    const fmt::basic_format_args<Context> all(wrapped, static_cast<int>(arguments.size()));
    return String(fmt::vsprintf(fmt::string_view(pattern), all));
}

String format(const char* pattern, std::initializer_list<FormatArgument> arguments) {
    if (arguments.size() <= usualArguments) {
        std::array<Argument, usualArguments> wrapped;
        return formatWith(pattern, wrapped.data(), arguments);
    }
    std::vector<Argument> wrapped(arguments.size());
    return formatWith(pattern, wrapped.data(), arguments);
}

}  // namespace

String stringFormatArguments(const char* pattern, std::initializer_list<FormatArgument> arguments) {
    if (pattern == nullptr)
        return String();
    try {
        return format(pattern, arguments);
    } catch (const std::exception& failure) {
        logging::MessageStream(logging::levelError, logging::channelSystem)
            << "util::stringFormat error: " << failure.what();
        return String(pattern);
    }
}

}  // namespace qel::util
