// Preloaded into the programs under torture: lets single writes and flushes fail, as a dying disk does.
//
// The file named by QEL_FAULTIO is shared with the harness: eight 32-bit numbers. [0] counts down the calls until the next
// fault (0: none is planned), [1] is its kind (1: EIO, 2: ENOSPC, 3: half of the bytes are written), [2] how many calls in a
// row fail, [3] counts the faults that happened.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>

namespace {

using Cell = std::atomic<unsigned>;

Cell* control() {
    static Cell* const cells = []() -> Cell* {
        const char* const name = getenv("QEL_FAULTIO");
        const int fd = name == nullptr ? -1 : open(name, O_RDWR | O_CLOEXEC);
        if (fd < 0)
            return nullptr;
        void* const memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        return memory == MAP_FAILED ? nullptr : static_cast<Cell*>(memory);
    }();
    return cells;
}

// Only files fail, and not the log, in which the harness reads: the network has a proxy of its own.
bool isFile(int fd) {
    struct stat status;
    return fd > STDERR_FILENO && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// The kind of the fault that this call suffers; 0 for none.
unsigned fault(int fd) {
    Cell* const cells = control();
    if (cells == nullptr || cells[0].load() == 0 || !isFile(fd))
        return 0;
    if (cells[0].load() > 1) {
        cells[0].fetch_sub(1);
        return 0;
    }
    if (cells[2].load() <= 1)
        cells[0].store(0);
    else
        cells[2].fetch_sub(1);
    cells[3].fetch_add(1);
    return cells[1].load();
}

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int failed(unsigned kind) {
    errno = kind == 2 ? ENOSPC : EIO;
    return -1;
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* data, size_t size) {
    static const auto next = real<ssize_t (*)(int, const void*, size_t)>("write");
    const unsigned kind = fault(fd);
    if (kind == 3 && size > 1)
        return next(fd, data, size / 2);
    return kind != 0 ? failed(kind) : next(fd, data, size);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    static const auto next = real<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
    const unsigned kind = fault(fd);
    if (kind == 3 && size > 1)
        return next(fd, data, size / 2, offset);
    return kind != 0 ? failed(kind) : next(fd, data, size, offset);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    return pwrite64(fd, data, size, offset);
}

ssize_t writev(int fd, const struct iovec* parts, int count) {
    static const auto next = real<ssize_t (*)(int, const struct iovec*, int)>("writev");
    const unsigned kind = fault(fd);
    return kind != 0 ? failed(kind) : next(fd, parts, count);
}

ssize_t pwritev64(int fd, const struct iovec* parts, int count, off64_t offset) {
    static const auto next = real<ssize_t (*)(int, const struct iovec*, int, off64_t)>("pwritev64");
    const unsigned kind = fault(fd);
    return kind != 0 ? failed(kind) : next(fd, parts, count, offset);
}

ssize_t pwritev(int fd, const struct iovec* parts, int count, off_t offset) {
    return pwritev64(fd, parts, count, offset);
}

int fdatasync(int fd) {
    static const auto next = real<int (*)(int)>("fdatasync");
    const unsigned kind = fault(fd);
    return kind != 0 ? failed(kind) : next(fd);
}

int fsync(int fd) {
    static const auto next = real<int (*)(int)>("fsync");
    const unsigned kind = fault(fd);
    return kind != 0 ? failed(kind) : next(fd);
}
}
