#pragma once

#include <string_view>

#include "converter/UsageCounts.h"
#include "converter/UserDirectory.h"

namespace qel {

/// Walks both logs once each, the interaction log first, and returns what the charts show. The texts must stay
/// while it runs.
UsageCounts countUsage(std::string_view interactionLog, std::string_view auditLog, GroupLookup groups,
                       bool withPhotodocDetails);

}  // namespace qel
