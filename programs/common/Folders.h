#pragma once

#include <string>

namespace qel::programs {

/// Makes a folder and those above it; one that exists is fine. Throws Failure(73).
void createFolder(const std::string& folder);

/// Makes a folder that its owner alone may enter; one that exists must be empty. Throws Failure(73).
void createNewFolder(const std::string& folder);

/// Writes a file whole: beside its place first, then moved there, so that nobody ever sees half of it. Throws
/// Failure(73) when it cannot be created and Failure(74) when it cannot be written.
void replaceFile(const std::string& file, const std::string& bytes);

/// Reads a whole text file; throws Failure: 66 missing, 77 not permitted, with the reason.
std::string readTextFile(const std::string& file);

}  // namespace qel::programs
