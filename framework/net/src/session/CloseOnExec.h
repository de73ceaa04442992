#pragma once

#include <fcntl.h>

namespace qel {

/// Programs that the host starts get no copy of the socket: with one, a port would stay taken and a connection open for as
/// long as they run.
inline void closeOnExec(int socket) {
    ::fcntl(socket, F_SETFD, FD_CLOEXEC);
}

}  // namespace qel
