#pragma once

#include <utility>

namespace qel {

/// Two values side by side, `first` and `second`: the standard pair, under the name that the system's
/// interfaces use.
template <class A, class B>
using Pair = std::pair<A, B>;

}  // namespace qel
