#include "common/Failure.h"

#include <cerrno>
#include <system_error>

namespace qel::programs {

Failure systemFailure(ExitCode code, const std::string& path, int error) {
    return Failure(code, path + ": " + std::generic_category().message(error));
}

Failure inputFailure(const std::string& path, int error) {
    return systemFailure(error == EACCES || error == EPERM ? exitNoPermission : exitInputMissing, path,
                         error);
}

}  // namespace qel::programs
