#pragma once

#include <vector>

namespace qel {

/// A growing array: the standard one, under the name that the system's interfaces use.
template <class T>
using Vector = std::vector<T>;

}  // namespace qel
