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
#include "storage/LmdbGuard.h"

namespace qel::storage {

namespace {

constexpr MDB_dbi freePagesDatabase = 0;

// A value of the engine's list is a count and as many page numbers.
int addFreePages(MDB_cursor* cursor, std::size_t first, std::uint64_t& pages) {
    MDB_val key;
    MDB_val value;
    int error = 0;
    while ((error = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) == 0) {
        // The engine reads a page of zeros as entries with empty keys, which it never stores.
        if (key.mv_size == 0)
            return MDB_CORRUPTED;
        const auto numberAt = [&value](std::size_t index) {
            std::size_t number = 0;
            if ((index + 1) * sizeof number <= value.mv_size)
                std::memcpy(&number, static_cast<const char*>(value.mv_data) + index * sizeof number,
                            sizeof number);
            return number;
        };
        const std::size_t count = std::min(numberAt(0), value.mv_size / sizeof(std::size_t));
        for (std::size_t i = 1; i <= count; ++i)
            pages += numberAt(i) >= first;
    }
    return error == MDB_NOTFOUND ? 0 : error;
}

// Adds the free pages from `first` on, as far as their list can be read.
int countFreePages(MDB_txn* transaction, std::size_t first, std::uint64_t& pages) {
    MDB_cursor* cursor = nullptr;
    int error = mdb_cursor_open(transaction, freePagesDatabase, &cursor);
    if (error != 0)
        return error;
    error = unlessDamaged([&] { return addFreePages(cursor, first, pages); });
    mdb_cursor_close(cursor);
    return error;
}

// Of the pages from `first` on, those that the newest snapshot does not know as free; all of them if its list of free
// pages is damaged.
std::uint64_t countUsedPages(MDB_env* environment, std::size_t first, std::uint64_t pages) {
    mdb_env_set_assert(environment, [](MDB_env*, const char*) { LmdbGuard::leave(); });
    MDB_txn* transaction = nullptr;
    if (mdb_txn_begin(environment, nullptr, MDB_RDONLY, &transaction) != 0)
        return pages;
    std::uint64_t freePages = 0;
    const int error = countFreePages(transaction, first, freePages);
    mdb_txn_abort(transaction);
    return error == 0 ? pages - std::min(freePages, pages) : pages;
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
    countFreePages(transaction, 0, out.freePages);
    mdb_txn_abort(transaction);
    struct stat file {};
    if (::stat(folder_.file(dataFile).c_str(), &file) == 0)
        out.fileBytes = static_cast<std::uint64_t>(file.st_size);
    struct statvfs system {};
    if (statvfs(folder_.path().c_str(), &system) == 0)
        out.diskFreeBytes = std::uint64_t{system.f_bavail} * system.f_frsize;
}

// Asks for the number of links only: who looks at a file's times, as fstat does, makes the next write change them, and the
// flush behind it write the file's inode too.
bool LmdbEngine::isRemoved() const {
    int fd = -1;
    struct statx file {};
    return environment_ != nullptr && mdb_env_get_fd(environment_, &fd) == 0 &&
           statx(fd, "", AT_EMPTY_PATH, STATX_NLINK, &file) == 0 && file.stx_nlink == 0;
}

std::uint64_t LmdbEngine::lostPages(const std::string& file) {
    MDB_env* environment = nullptr;
    struct stat found {};
    std::uint64_t lost = 0;
    if (::stat(file.c_str(), &found) != 0 || mdb_env_create(&environment) != 0)
        return 0;
    // The smallest map that holds the pages.
    mdb_env_set_mapsize(environment, 1);
    if (mdb_env_open(environment, file.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0) == 0) {
        MDB_envinfo info;
        MDB_stat stat;
        mdb_env_info(environment, &info);
        mdb_env_stat(environment, &stat);
        const std::uint64_t pages = std::uint64_t{info.me_last_pgno} + 1;
        const std::uint64_t there = static_cast<std::uint64_t>(found.st_size) / stat.ms_psize;
        if (there < pages)
            lost = truncate(file.c_str(), static_cast<off_t>(pages * stat.ms_psize)) == 0
                       ? countUsedPages(environment, there, pages - there)
                       : pages - there;
    }
    mdb_env_close(environment);
    return lost;
}

CommitResult LmdbEngine::copyTo(const std::string& file, bool compact) {
    const std::shared_lock steady(mapping_);
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                          static_cast<mode_t>(options_.fileMode & 0660));
    if (fd < 0)
        return {false, "cannot make the copy " + file + ": " + std::strerror(errno)};
    int error =
        environment_ == nullptr ? MDB_PANIC : mdb_env_copyfd2(environment_, fd, compact ? MDB_CP_COMPACT : 0);
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
