#include "common/Failure.h"

#include <system_error>

namespace qel::programs {

Failure systemFailure(ExitCode code, const std::string& path, int error) {
    return Failure(code, path + ": " + std::generic_category().message(error));
}

}  // namespace qel::programs
