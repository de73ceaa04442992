#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "qelCore/String.h"

namespace qel::programs {

/// Reads a whole file of any size that memory holds, and shows it piece by piece on the way. Throws Failure(66) with
/// the reason when it is missing, a folder, larger than the machine's memory, or not readable to its end, and Failure(65)
/// when a pipe or a device gives more than 1 GiB.
String readLargeFile(const std::string& file, const std::function<void(std::string_view piece)>& look);

}  // namespace qel::programs
