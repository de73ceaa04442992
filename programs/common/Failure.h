#pragma once

#include <stdexcept>
#include <string>

#include "common/ExitCode.h"

namespace qel::programs {

/// Ends a command: the sentence for standard error and the exit code that goes with it.
/// Thrown anywhere below a command's function, caught once in the table of commands (or in the daemon's
/// main).
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& sentence) : std::runtime_error(sentence), code_(code) {}

    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

/// "path: reason" with the system's own text for `error` (an errno value).
Failure systemFailure(ExitCode code, const std::string& path, int error);

/// The same for input that could not be opened: 77 when rights are missing, 66 otherwise.
Failure inputFailure(const std::string& path, int error);

}  // namespace qel::programs
