#include "DiskTap.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

namespace qel::test {

namespace {

struct Recorder {
    std::mutex mutex;
    bool isOpen = false;
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<DiskTap::Event> events;
    std::function<int(bool synchronous)> beforeWrite;
};

Recorder& recorder() {
    static Recorder one;
    return one;
}

bool isTapped(Recorder& tap, int fd) {
    struct stat found {};
    return tap.isOpen && fstat(fd, &found) == 0 && found.st_dev == tap.device && found.st_ino == tap.inode;
}

bool isSynchronous(int fd) {
    return (fcntl(fd, F_GETFL) & O_DSYNC) != 0;
}

void recordWrite(int fd, const void* bytes, std::size_t size, off_t offset) {
    Recorder& tap = recorder();
    const std::lock_guard guard(tap.mutex);
    if (!isTapped(tap, fd))
        return;
    tap.events.push_back(
        {isSynchronous(fd) ? DiskTap::Event::Kind::synchronousWrite : DiskTap::Event::Kind::write,
         static_cast<std::uint64_t>(offset), std::string(static_cast<const char*>(bytes), size), 0});
}

void recordFlush(int fd) {
    Recorder& tap = recorder();
    const std::lock_guard guard(tap.mutex);
    if (isTapped(tap, fd))
        tap.events.push_back({DiskTap::Event::Kind::flush, 0, {}, 0});
}

int askBeforeWrite(int fd) {
    return recorder().beforeWrite ? recorder().beforeWrite(isSynchronous(fd)) : 0;
}

}  // namespace

DiskTap::DiskTap(const std::string& file) {
    Recorder& tap = recorder();
    struct stat found {};
    const std::lock_guard guard(tap.mutex);
    if (stat(file.c_str(), &found) != 0)
        return;
    tap.device = found.st_dev;
    tap.inode = found.st_ino;
    tap.events.clear();
    tap.isOpen = true;
}

DiskTap::~DiskTap() {
    const std::lock_guard guard(recorder().mutex);
    recorder().isOpen = false;
    recorder().events.clear();
}

void DiskTap::note(long long number) {
    const std::lock_guard guard(recorder().mutex);
    recorder().events.push_back({Event::Kind::note, 0, {}, number});
}

std::vector<DiskTap::Event> DiskTap::take() {
    const std::lock_guard guard(recorder().mutex);
    return std::exchange(recorder().events, {});
}

void DiskTap::setBeforeWrite(std::function<int(bool synchronous)> hook) {
    recorder().beforeWrite = std::move(hook);
}

}  // namespace qel::test

// The names that the engine's library asks the program for.
extern "C" {

__attribute__((visibility("default"))) ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset) {
    if (const int error = qel::test::askBeforeWrite(fd)) {
        errno = error;
        return -1;
    }
    qel::test::recordWrite(fd, bytes, size, offset);
    return syscall(SYS_pwrite64, fd, bytes, size, offset);
}

__attribute__((visibility("default"))) ssize_t writev(int fd, const iovec* parts, int count) {
    if (const int error = qel::test::askBeforeWrite(fd)) {
        errno = error;
        return -1;
    }
    off_t offset = lseek(fd, 0, SEEK_CUR);
    for (int i = 0; i < count && offset >= 0; ++i) {
        qel::test::recordWrite(fd, parts[i].iov_base, parts[i].iov_len, offset);
        offset += static_cast<off_t>(parts[i].iov_len);
    }
    return syscall(SYS_writev, fd, parts, count);
}

__attribute__((visibility("default"))) int fdatasync(int fd) {
    const int result = static_cast<int>(syscall(SYS_fdatasync, fd));
    if (result == 0)
        qel::test::recordFlush(fd);
    return result;
}

}  // extern "C"
