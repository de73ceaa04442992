#pragma once

#include <string>

namespace qel::programs {

/// Looks whether a secret (a private key, the site key) is kept as one: a regular file that others cannot
/// touch, nor the group, except below the service manager's credentials directory ($CREDENTIALS_DIRECTORY).
/// Returns an empty text when all is well, otherwise the fault and its cure in one sentence.
std::string secretFileFault(const std::string& file);

/// Throws Failure: 66 when the file is missing, 77 when it may not be read, 78 when it is not kept as a secret.
void requireSecretFile(const std::string& file);

/// Writes a new file that its owner alone may read; throws Failure(73) when it exists or cannot be created.
void writeSecretFile(const std::string& file, const std::string& bytes);

/// Writes a new file for everybody to read; throws Failure(73) when it exists or cannot be created.
void writeNewFile(const std::string& file, const std::string& bytes);

}  // namespace qel::programs
