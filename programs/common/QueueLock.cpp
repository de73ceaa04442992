#include "common/QueueLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "common/Failure.h"

namespace qel::programs {
namespace {

std::string lockFile(const std::string& folder) {
    return folder + "/forward.lock";
}

struct flock wholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

QueueLock::QueueLock(const std::string& folder) {
    const std::string file = lockFile(folder);
    descriptor_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
    if (descriptor_ < 0)
        throw systemFailure(exitInputOutput, file, errno);
    struct flock lock = wholeFile(F_WRLCK);
    if (::fcntl(descriptor_, F_SETLK, &lock) == 0)
        return;
    const int error = errno;
    ::close(descriptor_);
    if (error != EACCES && error != EAGAIN)
        throw systemFailure(exitInputOutput, file, error);
    throw Failure(exitTemporary, "process " + std::to_string(holder(folder)) + " forwards the queue in " +
                                     folder + " already");
}

QueueLock::~QueueLock() {
    ::close(descriptor_);
}

int QueueLock::holder(const std::string& folder) {
    const int descriptor = ::open(lockFile(folder).c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0)
        return 0;
    struct flock lock = wholeFile(F_WRLCK);
    const bool asked = ::fcntl(descriptor, F_GETLK, &lock) == 0;
    ::close(descriptor);
    return asked && lock.l_type != F_UNLCK ? static_cast<int>(lock.l_pid) : 0;
}

}  // namespace qel::programs
