#pragma once

#include "qelCore/ConstByteSpan.h"
#include "qelCore/Export.h"

/// The named resources (scripts, images) of the host process. The table belongs to the host and begins empty:
/// the libraries put nothing into it and live with whatever is missing. Any thread; usable before other
/// static initialisers have run.
namespace qel::resources {

/// Enters or replaces the resource `name`. The name is copied; the bytes are not and must stay until the
/// entry is cleared or replaced (bytes embedded in a program stay for good).
QELCORE_EXPORT void set(const char* name, ConstByteSpan bytes);

/// Takes one entry out; no effect when there is none.
QELCORE_EXPORT void clear(const char* name);

/// Empties the table.
QELCORE_EXPORT void clear();

/// The bytes of the resource `name`; null when there is none. A resource that was set empty is empty, not
/// null.
QELCORE_EXPORT ConstByteSpan find(const char* name);

}  // namespace qel::resources
