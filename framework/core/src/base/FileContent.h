#pragma once

#include <string>
#include <string_view>

namespace qel {

/// Reads a whole file to its end. False, with `content` as it was, when that fails at any point.
bool readWholeFile(const char* path, std::string& content);

/// Creates or replaces a file with exactly these bytes: through a second file beside it that then takes the
/// name, or in place where that cannot be (a link, a device, a folder that takes no new file).
bool writeWholeFile(const char* path, std::string_view content);

}  // namespace qel
