#pragma once

#include <string>
#include <string_view>

namespace qel::tls {

/// Reads a file of at most a mebibyte. False and one sentence when it cannot be.
bool readFile(const std::string& file, std::string& content, std::string& error);

/// The same for a secret: refused when others than the owner may read it. Inside the folder that
/// CREDENTIALS_DIRECTORY names the group may, because service managers hand secrets out so.
bool readSecretFile(const std::string& file, std::string& content, std::string& error);

/// Writes beside the file and swaps it in, so that a reader sees the old or the new content, never half.
bool writeFile(const std::string& file, std::string_view content, unsigned mode, std::string& error);

}  // namespace qel::tls
