#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

/// What all benchmarks share: a clock, the median, and the one line per figure.
namespace qel::bench {

template <class Work>
double seconds(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// `name value unit`, and the ratio to a floor of the same run when there is one.
inline void print(const char* name, double value, const char* unit, double floor = 0) {
    if (floor > 0)
        std::printf("%s %.0f %s ratio=%.2f\n", name, value, unit, value / floor);
    else
        std::printf("%s %.0f %s\n", name, value, unit);
    std::fflush(stdout);
}

/// A size that may be set in the environment, for a longer or shorter run.
inline long sizeFrom(const char* variable, long standard) {
    const char* text = std::getenv(variable);
    return text == nullptr ? standard : std::max(1L, std::atol(text));
}

}  // namespace qel::bench
