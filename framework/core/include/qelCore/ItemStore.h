#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qelCore/Export.h"
#include "qelCore/Item.h"
#include "qelCore/StoreOptions.h"

namespace qel {

class StoreCore;

/// Told what a write meets under its key, so that nothing vanishes under it. Used from any thread, one call at a time per
/// write; lives at least until the write is durable or lost.
class QELCORE_EXPORT OverwriteGuard {
  public:
    using Entries = std::vector<std::pair<Item, Item>>;

    virtual ~OverwriteGuard();
    /// Other content stands under `key`, or came there by a write of the same moment. What is returned becomes durable in
    /// one transaction with the write. May read the store; asked again when the transaction has to be repeated.
    virtual Entries keep(const Item& key, ConstByteSpan older) = 0;
    /// What `keep` was asked for has been written over. Must not use the store, nor must `repeated`.
    virtual void replaced(const Item& key) = 0;
    /// The same content stood there already.
    virtual void repeated(const Item& key) = 0;
};

/// An ordered, durable map from item keys to values, shared by the processes of one machine. The store
/// operations of `Item` work on the process's current store; this class opens, names and watches stores, and
/// reaches those that are not current. Every operation may be called from any thread. Whoever opened a store
/// owns it and closes it by destroying the object, after the threads that use it have stopped; what is
/// pending is committed first.
///
/// Threads: one commit thread per open store, and writers that wait commit for each other. All writes pending
/// at one moment, of all threads, become one durable transaction. A store does not survive `fork`: in the
/// child every operation fails with a log line.
class QELCORE_EXPORT ItemStore {
  public:
    /// Opens the store that `url` names: "lmdb:PATH", a folder, or "postgresql://…", a database that programs
    /// of several machines share (docs/postgresql.md; there reads see what other processes commit within 200
    /// ms, and unique times are unique within the process). Null when that cannot be done, and `reason` says
    /// why in one sentence: the file system is a network's, the folder may not be written, the format is
    /// newer than this version, the path is open in this process already (there is one environment per
    /// process and path), ….
    static std::unique_ptr<ItemStore> open(std::string_view url, const StoreOptions& options,
                                           std::string& reason);
    /// Whether `url` could name a store, as far as its text alone tells; else `reason` says what is wrong with it.
    static bool checkUrl(std::string_view url, std::string& reason);
    ~ItemStore();
    ItemStore(const ItemStore&) = delete;
    ItemStore& operator=(const ItemStore&) = delete;

    /// The store that Item's operations use; null until one is set and after it was destroyed.
    static ItemStore* current();
    /// Makes `store` current (not owned; null for none) and its clock the source of
    /// `System::getUTCDateTimeUnique`. Before other threads use items as positions.
    static void setCurrent(ItemStore* store);

    const std::string& url() const;
    /// The folder of the store's files; of a database its place in words.
    const std::string& path() const;
    const StoreOptions& options() const;

    // ----- the operations of Item on this store, current or not; see there

    bool child(const Item& parent, Item& out);
    bool next(Item& position);
    bool next(Item& position, ConstByteSpan& value);
    bool prev(Item& position);
    ConstByteSpan fetch(const Item& key);
    /// As `Item::store`; false when the write was refused or, outside a batch and with durability `commit`,
    /// is not durable. `flush` tells the reason. A key or a value over its limit fails this write only: a
    /// batch that it was meant for completes without it. A write that found no room in time fails its batch.
    bool store(const Item& key, ConstByteSpan value);
    /// The same for a write that must not make other content vanish: `guard` is told what stood there, also when
    /// another process that shares a database wrote it a moment ago.
    bool store(const Item& key, ConstByteSpan value, const std::shared_ptr<OverwriteGuard>& guard);
    bool remove(const Item& key);
    /// Moves `position` to the nearest key behind it in the order of all keys, whatever its parent: for tools
    /// that look at everything.
    bool nextKey(Item& position);

    // ----- durability

    /// Waits until all that this thread wrote is durable, also what lies in its open batch and what was
    /// deferred. If a write of this thread since the last `flush` was refused or lost, says so.
    static CommitResult flush();
    CommitResult flushThread();
    /// Commits a small mark and waits: proves that the store can write now. Waits at most so long, or the store's
    /// patience when that is 0.
    CommitResult probeCommit(unsigned milliseconds = 0);
    /// As of `StoreStatistics::pendingBytes`.
    std::uint64_t pendingBytes() const;

    // ----- limits

    /// Longest key in bytes, encoded.
    std::size_t keyLimit() const;
    /// Largest value in bytes, encoded. A smaller limit takes effect for later writes.
    std::size_t valueLimit() const;
    void setValueLimit(std::size_t bytes);
    /// True when `store` would accept key and value; else `reason` says what is too large.
    bool accepts(const Item& key, std::size_t valueSize, std::string* reason = nullptr) const;

    // ----- what the store knows about itself

    StoreIdentity identity();
    CommitResult setSite(std::string_view site);
    /// Binds the store to the site key with this fingerprint, if it is not bound yet. False with a sentence
    /// in `reason` when it belongs to another.
    bool bindSiteKey(std::string_view fingerprint, std::string& reason);
    /// Binds the queues of this store to the identity that fills them; false when it is another's.
    bool bindQueueIdentity(std::string_view fingerprint, std::string& reason);
    /// The logs by name, in order of name.
    std::vector<StoreLog> logs();
    /// Adds or replaces the log of that name.
    CommitResult setLog(const StoreLog& log);
    /// True and `out` set when the store knows the log.
    bool findLog(std::string_view name, StoreLog& out);
    /// A path for the system's own entries (kept raw bytes, marks) outside of every log: its first element is
    /// of a type that no log's path begins with.
    static Item sidePath(std::string_view name);
    /// True when `key` lies below a side path.
    static bool isSideKey(const Item& key);

    // ----- the unique clock

    /// Microseconds since 1970 UTC: the present, or one more than the last value handed out by any process
    /// that has this store open, ever, whichever is later. The mark becomes durable with the writes that
    /// follow. A clock that ran wild is forgotten when it leads the present by more than `maxClockLead`;
    /// times handed out meanwhile are passed over when their hour comes.
    long long uniqueTime();
    static constexpr long long maxClockLead = 35LL * 24 * 3600 * 1000000;
    ClockState clock();

    // ----- watching

    StoreStatistics statistics() const;
    StoreSpace space();
    /// Called after each commit on the thread that made it; must be quick and must not use the store.
    /// Replaces the last one, which is not running any more on return.
    void setCommitObserver(std::function<void(const CommitReport&)> observer);

  private:
    friend class WriteBatch;
    friend class StoreTools;
    friend class SteadyRead;
    explicit ItemStore(std::unique_ptr<StoreCore> core);
    std::unique_ptr<StoreCore> core_;
};

/// While it lives, this thread reads the current store, or `store`, as it was at one moment: where that lies in a database,
/// in one snapshot on a connection of its own, from the first read on. What this process has written but not committed is not
/// in it. An embedded store is read as ever, each walk going on behind its key. Lives on one thread's stack; one inside another
/// joins it.
class QELCORE_EXPORT SteadyRead {
  public:
    SteadyRead();
    explicit SteadyRead(ItemStore* store);
    ~SteadyRead();
    SteadyRead(const SteadyRead&) = delete;
    SteadyRead& operator=(const SteadyRead&) = delete;

    /// Whether all that was asked for could be read. If not, the reason: the snapshot was lost, for instance with its server,
    /// and everything behind reads as not there.
    CommitResult result() const;

  private:
    ItemStore* store_;
    std::uint64_t faultsBefore_;
};

/// Collects this thread's writes to the current store from construction until `submit` or `commit`, so that
/// they share one durable transaction; own reads see them at once. Lives on one thread's stack; a batch
/// inside another joins it: its writes, and the function given to its `submit`, wait for the outer one. A
/// batch that is destroyed without either is submitted. A batch of more than `largest` bytes is split between
/// two writes, a smaller one never.
class QELCORE_EXPORT WriteBatch {
  public:
    using Completion = std::function<void(const CommitResult&)>;
    static constexpr std::size_t largest = std::size_t{16} << 20;

    /// Of the current store, or of `store`. Without any store the batch does nothing and completes durable.
    WriteBatch();
    explicit WriteBatch(ItemStore* store);
    ~WriteBatch();
    WriteBatch(const WriteBatch&) = delete;
    WriteBatch& operator=(const WriteBatch&) = delete;

    /// Number and bytes of the writes collected so far, those of batches that joined included.
    std::uint64_t writes() const;
    std::uint64_t bytes() const;
    /// Hands the writes to the commit thread and returns at once. `done` (may be empty) runs once, when they
    /// and all writes submitted before are durable or lost, on the commit thread, where it must only post
    /// elsewhere and not use the store; at once on this thread when there is nothing to wait for. The batch
    /// is then empty and collects on.
    void submit(Completion done);
    /// Hands the writes over without hurry: they may wait up to `milliseconds` for the company of others, for
    /// writes whose loss costs only a repetition. In a joined batch like `submit`.
    void submitDeferred(unsigned milliseconds);
    /// Submits and waits. In a joined batch this submits the outer one's writes so far.
    CommitResult commit();

  private:
    ItemStore* store_;
    bool joined_;
};

}  // namespace qel
