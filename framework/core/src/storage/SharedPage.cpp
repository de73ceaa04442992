#include "storage/SharedPage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace qel::storage {

namespace {

constexpr std::uint64_t pageMagic = 0x3165676170716571ULL;
constexpr std::size_t pageBytes = 4096;

std::string sentence(const char* what, const std::string& file) {
    return std::string(what) + " " + file + ": " + std::strerror(errno);
}

void makeRobust(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

bool takeOver(pthread_mutex_t& mutex, int result) {
    if (result == EOWNERDEAD)
        result = pthread_mutex_consistent(&mutex);
    return result == 0;
}

}  // namespace

struct SharedPage::Layout {
    std::uint64_t magic;
    pthread_mutex_t writer;
    std::atomic<int> writerProcess;
    ClockPage clock;
};

SharedPage::~SharedPage() {
    letOthersIn();
    if (page_ != nullptr)
        munmap(page_, pageBytes);
    if (fd_ >= 0)
        close(fd_);
}

// Two locks, both gone with the process that holds them: the gate (on a file of its own) is held while a store is being
// opened, the page's, shared, as long as it is open. Whoever gets the page's for himself alone is the first, and what
// earlier processes left in it, locked mutexes included, is worth nothing.
bool SharedPage::open(const std::string& file, unsigned mode, std::string& reason) {
    const std::string gateFile = file + ".gate";
    gate_ = ::open(gateFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode);
    if (gate_ < 0 || flock(gate_, LOCK_EX) != 0) {
        reason = sentence("cannot lock", gateFile);
        return false;
    }
    fchmod(gate_, mode);
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode);
    if (fd_ < 0) {
        reason = sentence("cannot open", file);
        return false;
    }
    fchmod(fd_, mode);
    first_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
    if (!map(file, reason))
        return false;
    if (first_ || page_->magic != pageMagic)
        initialise();
    if (flock(fd_, LOCK_SH) != 0) {
        reason = sentence("cannot lock", file);
        return false;
    }
    return true;
}

bool SharedPage::map(const std::string& file, std::string& reason) {
    // Blocks of its own, so that a full disk is told here and not by a signal later.
    const int failed = posix_fallocate(fd_, 0, static_cast<off_t>(pageBytes));
    if (failed != 0) {
        errno = failed;
        reason = sentence("cannot reserve space for", file);
        return false;
    }
    void* const at = mmap(nullptr, pageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (at == MAP_FAILED) {
        reason = sentence("cannot map", file);
        return false;
    }
    static_assert(sizeof(Layout) <= pageBytes);
    page_ = static_cast<Layout*>(at);
    return true;
}

void SharedPage::initialise() {
    std::memset(static_cast<void*>(page_), 0, pageBytes);
    makeRobust(page_->writer);
    makeRobust(page_->clock.mutex);
    page_->clock.nextSkip = std::numeric_limits<long long>::max();
    page_->magic = pageMagic;
}

void SharedPage::letOthersIn() {
    if (gate_ >= 0)
        close(gate_);
    gate_ = -1;
}

ClockPage& SharedPage::clock() const {
    return page_->clock;
}

bool SharedPage::lockWriter(unsigned milliseconds) {
    int result = pthread_mutex_trylock(&page_->writer);
    if (result == EBUSY) {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        const long long nanoseconds = until.tv_nsec + milliseconds * 1000000LL;
        until.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
        until.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
        result = pthread_mutex_timedlock(&page_->writer, &until);
    }
    if (!takeOver(page_->writer, result))
        return false;
    page_->writerProcess = getpid();
    return true;
}

void SharedPage::unlockWriter() {
    pthread_mutex_unlock(&page_->writer);
}

int SharedPage::writerProcess() const {
    return page_->writerProcess;
}

bool SharedPage::lockRobust(pthread_mutex_t& mutex) {
    return takeOver(mutex, pthread_mutex_lock(&mutex));
}

}  // namespace qel::storage
