#pragma once

/// Marks what this library offers to other modules; everything else is hidden.
#define QELAUDITING_EXPORT __attribute__((visibility("default")))
