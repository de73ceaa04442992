#include "common/Nearest.h"

#include <algorithm>

namespace qel::programs {
namespace {

/// Number of characters to insert, drop or exchange to turn `a` into `b`.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row[b.size()];
}

}  // namespace

std::string nearestOf(const std::string& word, const std::vector<std::string>& candidates) {
    // A third of the letters may differ: more than that is a guess, not a suggestion.
    std::size_t best = std::max<std::size_t>(word.size() / 3, 1) + 1;
    std::string nearest;
    for (const std::string& candidate : candidates) {
        const std::size_t distance = editDistance(word, candidate);
        if (distance < best) {
            best = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

}  // namespace qel::programs
