#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "qelCore/Item.h"

namespace qel::programs {

/// Why a line is not an event; the caller adds file and line number.
class BadEventLine : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Reads one JSON array of strings, 64-bit integers and booleans, the first of them the event's name, into
/// `event` (its old content is dropped). Throws BadEventLine for anything else: other types, fractions,
/// numbers beyond 64 bits, nesting, text behind the array, bytes that are not UTF-8.
void readEventLine(std::string_view line, Item& event);

/// Reads {"time":"RFC 3339 with offset","event":[…]} and returns the time in microseconds since 1970.
std::int64_t readReplayLine(std::string_view line, Item& event);

/// One event as such an array, for people and for `queue --show`.
std::string writeEventLine(const Item& event);

}  // namespace qel::programs
