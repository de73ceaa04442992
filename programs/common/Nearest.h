#pragma once

#include <string>
#include <vector>

namespace qel::programs {

/// The candidate that `word` was most likely meant to be, or an empty text when none is near enough to
/// suggest.
std::string nearestOf(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace qel::programs
