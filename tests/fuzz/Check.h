#pragma once

#include <cstdio>
#include <cstdlib>

namespace qel::fuzz {

/// Ends the fuzzer with a report of its input when something that must hold does not.
inline void check(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

}  // namespace qel::fuzz
