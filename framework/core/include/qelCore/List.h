#pragma once

#include <list>

namespace qel {

/// A linked list: the standard one, under the name that the system's interfaces use.
template <class T>
using List = std::list<T>;

}  // namespace qel
