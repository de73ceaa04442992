#pragma once

/// Marks what this library offers to other modules; everything else is hidden.
#define QELCORE_EXPORT __attribute__((visibility("default")))

/// Marks the definition of a class that lives inside one that is offered, but is nobody else's business: without it the inner
/// class would be offered, too, and could not change without a sign to everyone who links.
#define QEL_HIDDEN __attribute__((visibility("hidden")))
