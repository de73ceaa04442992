#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qelCore/logging/MessageStream.h"
#include "storage/LmdbEngine.h"

namespace qel::storage {

namespace {

constexpr MDB_dbi freePagesDatabase = 0;

std::uint64_t countFreePages(MDB_txn* transaction) {
    MDB_cursor* cursor = nullptr;
    if (mdb_cursor_open(transaction, freePagesDatabase, &cursor) != 0)
        return 0;
    std::uint64_t pages = 0;
    MDB_val key;
    MDB_val value;
    while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
        std::size_t count = 0;
        std::memcpy(&count, value.mv_data, sizeof count);
        pages += count;
    }
    mdb_cursor_close(cursor);
    return pages;
}

std::uint64_t neededBytes(MDB_env* environment) {
    MDB_envinfo info;
    MDB_stat stat;
    if (mdb_env_info(environment, &info) != 0 || mdb_env_stat(environment, &stat) != 0)
        return 0;
    return (std::uint64_t{info.me_last_pgno} + 1) * stat.ms_psize;
}

struct Readers {
    unsigned count = 0;
    std::uint64_t oldest = ~std::uint64_t{0};
};

// One line per reader: process, thread, and the transaction it reads or "-".
int addReaders(const char* text, void* context) {
    auto& readers = *static_cast<Readers*>(context);
    int process = 0;
    char thread[64];
    char transaction[64];
    if (std::sscanf(text, "%d %63s %63s", &process, thread, transaction) != 3)
        return 0;
    ++readers.count;
    if (transaction[0] != '-')
        readers.oldest = std::min<std::uint64_t>(readers.oldest, std::strtoull(transaction, nullptr, 10));
    return 0;
}

}  // namespace

void LmdbEngine::space(StoreSpace& out) {
    const std::shared_lock steady(mapping_);
    if (environment_ == nullptr)
        return;
    MDB_envinfo info;
    mdb_env_info(environment_, &info);
    Readers readers;
    mdb_reader_list(environment_, addReaders, &readers);
    out.readers = readers.count;
    out.readerSlots = info.me_maxreaders;
    out.oldestReaderLag = readers.oldest < info.me_last_txnid ? info.me_last_txnid - readers.oldest : 0;
    out.mapBytes = info.me_mapsize;
    MDB_txn* transaction = nullptr;
    if (mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction) != 0)
        return;
    MDB_stat stat;
    mdb_stat(transaction, database_, &stat);
    out.entries = stat.ms_entries;
    out.pageBytes = stat.ms_psize;
    out.usedBytes = (stat.ms_branch_pages + stat.ms_leaf_pages + stat.ms_overflow_pages) * stat.ms_psize;
    out.freePages = countFreePages(transaction);
    mdb_txn_abort(transaction);
    struct stat file {};
    if (::stat(folder_.file(dataFile).c_str(), &file) == 0)
        out.fileBytes = static_cast<std::uint64_t>(file.st_size);
    struct statvfs system {};
    if (statvfs(folder_.path().c_str(), &system) == 0)
        out.diskFreeBytes = std::uint64_t{system.f_bavail} * system.f_frsize;
}

// Told before anything is read: where pages in use are missing, reading them ends the process.
void LmdbEngine::tellMissingEnd() const {
    int fd = -1;
    struct stat file {};
    if (mdb_env_get_fd(environment_, &fd) != 0 || fstat(fd, &file) != 0)
        return;
    const std::uint64_t needed = neededBytes(environment_);
    const auto size = static_cast<std::uint64_t>(file.st_size);
    if (size < needed)
        logging::MessageStream(2, 2)
            << "the data file of the store " << folder_.path() << " lacks " << needed - size
            << " bytes at its end; unless they were free, it was cut and needs a backup";
}

bool LmdbEngine::isRemoved() const {
    int fd = -1;
    struct stat file {};
    return environment_ != nullptr && mdb_env_get_fd(environment_, &fd) == 0 && fstat(fd, &file) == 0 &&
           file.st_nlink == 0;
}

std::uint64_t LmdbEngine::missingBytes(const std::string& file) {
    MDB_env* environment = nullptr;
    struct stat found {};
    std::uint64_t needed = 0;
    if (::stat(file.c_str(), &found) != 0 || mdb_env_create(&environment) != 0)
        return 0;
    if (mdb_env_open(environment, file.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0) == 0)
        needed = neededBytes(environment);
    mdb_env_close(environment);
    const auto size = static_cast<std::uint64_t>(found.st_size);
    return needed > size ? needed - size : 0;
}

CommitResult LmdbEngine::copyTo(const std::string& file, bool compact) {
    const std::shared_lock steady(mapping_);
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                          static_cast<mode_t>(options_.fileMode & 0660));
    if (fd < 0)
        return {false, "cannot make the copy " + file + ": " + std::strerror(errno)};
    int error =
        environment_ == nullptr ? MDB_PANIC : mdb_env_copyfd2(environment_, fd, compact ? MDB_CP_COMPACT : 0);
    // Free pages at the end may never have been written. A copy has them all, so that a shorter one is a cut one.
    struct stat copy {};
    if (error == 0 && !compact && fstat(fd, &copy) == 0) {
        const auto needed = static_cast<off_t>(neededBytes(environment_));
        if (copy.st_size < needed && ftruncate(fd, needed) != 0)
            error = errno;
    }
    if (error == 0 && fsync(fd) != 0)
        error = errno;
    if (close(fd) != 0 && error == 0)
        error = errno;
    if (error == 0)
        return {};
    unlink(file.c_str());
    return {false, "cannot copy the store " + folder_.path() + " to " + file + ": " + mdb_strerror(error)};
}

}  // namespace qel::storage
