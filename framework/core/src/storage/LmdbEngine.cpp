#include "storage/LmdbEngine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "qelCore/logging/MessageStream.h"
#include "storage/LmdbGuard.h"
#include "storage/LmdbRemoval.h"
#include "storage/UniqueClock.h"

namespace qel::storage {

namespace {

// Threads that read at one time, of all processes together. The lock file holds 64 bytes for each.
constexpr unsigned readerSlots = 2046;
constexpr std::size_t lockFileBytes = std::size_t{64} * (readerSlots + 2);
constexpr std::size_t smallestMap = std::size_t{64} << 20;
// A waiting writer looks up at least this often whether the store closes.
constexpr unsigned lockStepMilliseconds = 200;

MDB_val valueOf(Bytes bytes) {
    return {bytes.size(), const_cast<char*>(bytes.data())};
}

int putOne(MDB_cursor* cursor, LmdbRemoval& removal, const Write& write) {
    MDB_val key = valueOf(write.key);
    MDB_val value = valueOf(write.value);
    return write.removes ? removal.remove(cursor, key) : mdb_cursor_put(cursor, &key, &value, 0);
}

}  // namespace

std::unique_ptr<LmdbEngine> LmdbEngine::open(const std::string& path, const StoreOptions& options,
                                             std::string& reason) {
    std::unique_ptr<LmdbEngine> engine(new LmdbEngine(options));
    return engine->start(path, reason) ? std::move(engine) : nullptr;
}

LmdbEngine::~LmdbEngine() {
    for (const auto& cursor : cursors_) {
        const std::lock_guard guard(cursor->lock);
        cursor->retire();
    }
    if (environment_ != nullptr)
        mdb_env_close(environment_);
}

bool LmdbEngine::start(const std::string& path, std::string& reason) {
    if (!folder_.open(path, options_, reason))
        return false;
    // Before the environment opens it: closing a file drops this process's locks on it.
    if (!StoreFolder::reserve(folder_.file(lockFile), lockFileBytes, options_.fileMode, reason))
        return false;
    if (!page_.open(folder_.file(pageFile), options_.fileMode, reason))
        return false;
    if (page_.isFirst())
        checkEnd();
    if (!openEnvironment(reason))
        return false;
    for (const char* const name : {dataFile, lockFile, pageFile, "shared.gate"})
        folder_.adopt(folder_.file(name), options_.fileMode);
    if (page_.isFirst() && !loadClock(reason))
        return false;
    page_.letOthersIn();
    return true;
}

// Told before anything is read: what lies on a page that is gone is an error only for whoever comes to it.
void LmdbEngine::checkEnd() const {
    const std::uint64_t lost = lostPages(folder_.file(dataFile));
    if (lost != 0)
        logging::MessageStream(3, 2) << "the data file of the store " << folder_.path()
                                     << " was cut: it lacks " << lost
                                     << " pages in use at its end; restore a backup of it";
}

bool LmdbEngine::openEnvironment(std::string& reason) {
    std::size_t mapBytes = std::max<std::size_t>(options_.mapBytes, smallestMap);
    int error = tryOpen(mapBytes);
    // Where the address space is limited, a smaller map is better than none.
    while (error == ENOMEM && mapBytes > smallestMap) {
        mapBytes /= 4;
        error = tryOpen(mapBytes);
    }
    if (error != 0) {
        reason = sentence("cannot open the store", error);
        return false;
    }
    int dead = 0;
    mdb_reader_check(environment_, &dead);
    return true;
}

int LmdbEngine::tryOpen(std::size_t mapBytes) {
    int error = mdb_env_create(&environment_);
    if (error != 0)
        return error;
    mdb_env_set_userctx(environment_, this);
    mdb_env_set_assert(
        environment_, [](MDB_env* environment, const char* fault) {
            LmdbGuard::leave();
            // The engine ends the process after this.
            logging::MessageStream(3, 2)
                << "the store " << static_cast<const LmdbEngine*>(mdb_env_get_userctx(environment))->folder()
                << " is damaged and cannot be used (" << fault << "); restore a backup of it";
        });
    mdb_env_set_maxreaders(environment_, readerSlots);
    mdb_env_set_mapsize(environment_, mapBytes);
    error = mdb_env_open(environment_, folder_.path().c_str(), MDB_NOTLS,
                         static_cast<mdb_mode_t>(options_.fileMode));
    MDB_txn* transaction = nullptr;
    if (error == 0)
        error = mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction);
    if (error == 0) {
        error = mdb_dbi_open(transaction, nullptr, 0, &database_);
        mdb_txn_abort(transaction);
    }
    if (error != 0) {
        mdb_env_close(environment_);
        environment_ = nullptr;
    }
    return error;
}

bool LmdbEngine::loadClock(std::string& reason) {
    MDB_txn* transaction = nullptr;
    int error = mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction);
    if (error != 0) {
        reason = sentence("cannot read the store", error);
        return false;
    }
    MDB_val key = valueOf(UniqueClock::markKey());
    MDB_val value;
    error = unlessDamaged([&] { return mdb_get(transaction, database_, &key, &value); });
    if (error != 0 && error != MDB_NOTFOUND)
        tellReadFault(error);
    const Bytes record = error == 0 ? Bytes(static_cast<const char*>(value.mv_data), value.mv_size) : Bytes();
    UniqueClock::load(page_.clock(), record);
    mdb_txn_abort(transaction);
    return true;
}

void LmdbEngine::tellReadFault(int error) {
    const std::lock_guard guard(faultsMutex_);
    const auto now = std::chrono::steady_clock::now();
    ++untoldFaults_;
    if (error == toldFault_ && now - toldAt_ < std::chrono::seconds(1))
        return;
    logging::MessageStream line(3, 2);
    line << "cannot read the store " << folder_.path() << ": " << mdb_strerror(error);
    if (untoldFaults_ > 1)
        line << ", " << untoldFaults_ << " times since this was last told";
    toldFault_ = error;
    toldAt_ = now;
    untoldFaults_ = 0;
}

std::shared_ptr<EngineCursor> LmdbEngine::makeCursor() {
    auto cursor = std::make_shared<LmdbCursor>(*this);
    const std::lock_guard guard(cursorsMutex_);
    std::erase_if(cursors_, [](const auto& other) { return other.use_count() == 1; });
    cursors_.push_back(cursor);
    return cursor;
}

unsigned LmdbEngine::sweep() {
    const std::lock_guard guard(cursorsMutex_);
    unsigned live = 0;
    for (const auto& cursor : cursors_) {
        if (!cursor->lock.try_lock()) {
            ++live;
            continue;
        }
        if (!cursor->closed && cursor->isLive()) {
            if (cursor->touched.exchange(false))
                ++live;
            else
                cursor->rest();
        }
        cursor->lock.unlock();
    }
    return live;
}

// No thread of this process looks at the map while `action` moves it.
template <typename Action>
void LmdbEngine::stopReaders(Action action) {
    const std::unique_lock alone(mapping_);
    const std::lock_guard guard(cursorsMutex_);
    for (const auto& cursor : cursors_) {
        cursor->lock.lock();
        if (!cursor->closed)
            cursor->drop();
    }
    action();
    for (const auto& cursor : cursors_)
        cursor->lock.unlock();
}

void LmdbEngine::adoptGrowth() {
    const std::lock_guard guard(writing_);
    stopReaders([this] { mdb_env_set_mapsize(environment_, 0); });
}

void LmdbEngine::reopen() {
    stopReaders([this] {
        // The last try may have been in vain.
        if (environment_ != nullptr) {
            MDB_envinfo info;
            mdb_env_info(environment_, &info);
            mapBytes_ = info.me_mapsize;
            mdb_env_close(environment_);
            environment_ = nullptr;
        }
        const int error = tryOpen(mapBytes_);
        ++reopened;
        logging::MessageStream(error == 0 ? 2 : 3, 2)
            << "the store " << folder_.path() << " failed for good and was opened again"
            << (error == 0 ? "" : ", in vain: ") << (error == 0 ? "" : mdb_strerror(error));
    });
}

bool LmdbEngine::lockWriter(std::string& reason) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto patience = std::chrono::milliseconds(options_.patienceMilliseconds);
    bool told = false;
    while (!page_.lockWriter(lockStepMilliseconds)) {
        const auto waited = Clock::now() - start;
        if (!told && waited > std::chrono::seconds(2)) {
            logging::MessageStream(2, 2)
                << "process " << page_.writerProcess() << " holds up writing to the store " << folder_.path();
            told = true;
        }
        if (closing && waited > patience) {
            reason = "process " + std::to_string(page_.writerProcess()) + " holds up writing to the store " +
                     folder_.path();
            return false;
        }
    }
    return true;
}

CommitResult LmdbEngine::commit(const std::vector<const std::vector<Write>*>& writes) {
    const std::lock_guard guard(writing_);
    CommitResult result;
    result.durable = lockWriter(result.reason);
    if (!result.durable)
        return result;
    // The engine would go on in a file without a name, and all of it would be gone with the last process that has it open.
    if (isRemoved()) {
        page_.unlockWriter();
        return {false, "the data file of the store " + folder_.path() +
                           " was removed; put it back from a backup and start again"};
    }
    int error = write(writes);
    // A condition that goes away is worth more tries than one: map too small, map grown, environment worn out.
    for (int tries = 0; error != 0 && tries < 8; ++tries) {
        const int again = recover(error);
        if (again != 0)
            break;
        error = write(writes);
    }
    page_.unlockWriter();
    if (error != 0) {
        result.durable = false;
        result.reason = sentence("cannot write to the store", error);
    }
    return result;
}

// Zero when the cause is gone.
int LmdbEngine::recover(int error) {
    if (error == MDB_MAP_RESIZED) {
        stopReaders([this] { mdb_env_set_mapsize(environment_, 0); });
        return 0;
    }
    if (error == MDB_MAP_FULL) {
        MDB_envinfo info;
        mdb_env_info(environment_, &info);
        int failed = 0;
        stopReaders([&] { failed = mdb_env_set_mapsize(environment_, info.me_mapsize * 2); });
        if (failed == 0)
            ++mapGrown;
        return failed;
    }
    if (error == MDB_PANIC) {
        reopen();
        return environment_ != nullptr ? 0 : error;
    }
    return error;
}

int LmdbEngine::write(const std::vector<const std::vector<Write>*>& writes) {
    if (environment_ == nullptr)
        return MDB_PANIC;
    MDB_txn* transaction = nullptr;
    int error = mdb_txn_begin(environment_, nullptr, 0, &transaction);
    if (error != 0)
        return error;
    long long mark = 0;
    std::string record;
    UniqueClock::dueMark(page_.clock(), System::getUTCDateTime(), record, mark);
    error = unlessDamaged([&] { return putAll(transaction, writes, record); });
    if (error != 0) {
        mdb_txn_abort(transaction);
        return error;
    }
    error = mdb_txn_commit(transaction);
    if (error == 0 && mark != 0)
        UniqueClock::markCommitted(page_.clock(), mark);
    return error;
}

int LmdbEngine::putAll(MDB_txn* transaction, const std::vector<const std::vector<Write>*>& writes,
                       const std::string& mark) {
    MDB_cursor* cursor = nullptr;
    int error = mdb_cursor_open(transaction, database_, &cursor);
    LmdbRemoval removal(transaction, database_);
    for (const auto* const batch : writes)
        for (auto write = batch->begin(); error == 0 && write != batch->end(); ++write)
            error = putOne(cursor, removal, *write);
    MDB_val key = valueOf(UniqueClock::markKey());
    MDB_val value = valueOf(mark);
    if (error == 0 && value.mv_size != 0)
        error = mdb_cursor_put(cursor, &key, &value, 0);
    if (cursor != nullptr)
        mdb_cursor_close(cursor);
    return error;
}

std::size_t LmdbEngine::keyLimit() const {
    return 511;  // the engine's own, the same for all its builds that may meet one store
}

std::string LmdbEngine::sentence(const char* what, int error) const {
    std::string out = std::string(what) + " " + folder_.path() + ": " + mdb_strerror(error);
    if (error == MDB_INVALID)
        out += "; expected a store's " + std::string(dataFile);
    return out;
}

}  // namespace qel::storage
