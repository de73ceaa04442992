#pragma once

#include <string>

#include "qelCore/ConstByteSpan.h"

namespace qel::programs {

/// Appends one line of a log as `get_audit_log` returns it, as one JSON object on a line of its own: time (RFC 3339
/// in UTC with microseconds), origin, user, device, event, params. Elements keep their types; bytes become hexadecimal
/// digits, nested items their printed form.
void appendJsonLine(std::string& text, ConstByteSpan line);

}  // namespace qel::programs
