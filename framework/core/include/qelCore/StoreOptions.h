#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qelCore/Item.h"

namespace qel {

/// What a write outside of a write batch promises when it returns.
enum class Durability {
    /// It is on disk.
    commit,
    /// It will be on disk within `StoreOptions::deferredMilliseconds`; a power cut before takes it, and a
    /// killed
    /// process does so too. For threads that must not wait, such as those of a user interface.
    deferred,
};

/// How a store is opened. The defaults suit a workstation as well as the central machine.
struct StoreOptions {
    Durability durability = Durability::commit;
    /// The longest time that a deferred write waits for company.
    unsigned deferredMilliseconds = 50;
    /// False: a store that does not exist is an error.
    bool create = true;
    /// Looks only: every write is refused. The folder must be writable all the same: readers leave marks.
    bool readOnly = false;
    /// Address space reserved at once; the file stays as small as its content. Grown, with a short stop of
    /// all readers of this process, if it ever fills.
    std::uint64_t mapBytes = std::uint64_t{1} << 40;
    /// Largest value in bytes, encoded; larger ones are refused one by one.
    std::size_t valueLimit = std::size_t{1} << 20;
    /// Writes not yet durable may take this much memory; then writers wait.
    std::size_t pendingLimit = std::size_t{64} << 20;
    /// How long a writer waits for room before its write is refused; also how long closing waits for a commit
    /// that another process holds up.
    unsigned patienceMilliseconds = 10000;
    /// Mode of new files; the folder gets execute rights where this has read rights. Owner and group are
    /// those of the folder above when the process may give files away, else its own.
    unsigned fileMode = 0660;
};

/// Whether something became durable, and the reason if it did not, as one sentence.
struct CommitResult {
    bool durable = true;
    std::string reason;
    explicit operator bool() const { return durable; }
};

/// One commit, as told to the observer: for a histogram of commit times.
struct CommitReport {
    bool durable = false;
    /// From the start of the transaction to its durability, waiting for other processes included.
    std::uint64_t microseconds = 0;
    std::uint64_t writes = 0;
    std::uint64_t bytes = 0;
};

/// Counters since the store was opened, and its present state. All cheap to read.
struct StoreStatistics {
    std::uint64_t commits = 0;
    std::uint64_t failedCommits = 0;
    std::uint64_t writes = 0;
    std::uint64_t writtenBytes = 0;
    /// Writes refused: over a limit, or no room in time.
    std::uint64_t refusedWrites = 0;
    /// Bytes and number of writes that are not durable yet, those of open batches included.
    std::uint64_t pendingBytes = 0;
    std::uint64_t pendingWrites = 0;
    /// Counts up at least once a second while the commit thread is alive and not held up.
    std::uint64_t commitThreadTurns = 0;
    /// How long the present commit has been running, in microseconds; 0 when none is.
    std::uint64_t commitRunningMicroseconds = 0;
    /// Times that a connection to the store, or the store as a whole, was lost and made anew.
    std::uint64_t reopened = 0;
    std::uint64_t mapGrown = 0;
    /// False while the database that holds the store cannot be reached.
    bool reachable = true;
};

/// One log of the store by name: where it lies, and what kind it is.
struct StoreLog {
    enum class Kind { central, queue };
    /// "interaction" or "audit", as the commands use it.
    std::string name;
    Item path;
    Kind kind = Kind::central;
    /// No name of a person may appear in it or in anything derived from it.
    bool anonymous = false;
};

/// What a store says about itself.
struct StoreIdentity {
    /// Raised when older versions could no longer read the store.
    int format = 0;
    /// Microseconds since 1970 UTC.
    long long created = 0;
    std::string site;
    /// Fingerprint of the site key that the origins in it were made with; empty until bound.
    std::string siteKeyFingerprint;
    /// Fingerprint of the identity that fills the queues in it; empty until bound.
    std::string queueIdentity;
};

/// Size and use of the store's files.
struct StoreSpace {
    std::uint64_t entries = 0;
    std::uint64_t fileBytes = 0;
    std::uint64_t usedBytes = 0;
    std::uint64_t freePages = 0;
    std::uint64_t pageBytes = 0;
    std::uint64_t mapBytes = 0;
    /// Bytes free on the file system for this process.
    std::uint64_t diskFreeBytes = 0;
    unsigned readers = 0;
    unsigned readerSlots = 0;
    /// Commits that the oldest reader lies behind; what it still sees cannot be used again.
    std::uint64_t oldestReaderLag = 0;
};

/// State of the unique clock.
struct ClockState {
    /// Highest time handed out by any process.
    long long last = 0;
    /// Highest time known to be on disk.
    long long committed = 0;
    /// How far `last` is ahead of the system's clock, in microseconds; 0 when it is not.
    long long lead = 0;
};

}  // namespace qel
