#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "qelCore/ConstByteSpan.h"
#include "qelCore/Item.h"

namespace qel::programs {

/// Calls `use` with each line of an answer of `get_audit_log` and returns how many there were. Throws Failure(65)
/// when the answer holds something else, after the lines before it.
std::uint64_t forEachLine(const Item& answer, const std::function<void(ConstByteSpan line)>& use);

/// Appends one line of a log as `get_audit_log` returns it, as one JSON object on a line of its own: time (RFC 3339
/// in UTC with microseconds), origin, user, device, event, params. Elements keep their types; bytes become hexadecimal
/// digits, nested items their printed form.
void appendJsonLine(std::string& text, ConstByteSpan line);

}  // namespace qel::programs
