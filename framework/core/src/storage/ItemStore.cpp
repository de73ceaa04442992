#include "qelCore/ItemStore.h"

#include "item/ItemCodec.h"
#include "qelCore/System.h"
#include "qelCore/logging/MessageStream.h"
#include "storage/LmdbEngine.h"
#include "storage/Navigation.h"
#include "storage/PostgresEngine.h"
#include "storage/StoreCore.h"
#include "storage/StoreRecords.h"

namespace qel {

using storage::StoreReader;
using storage::StoreRecords;

namespace {

constexpr std::string_view lmdbScheme = "lmdb:";
constexpr const char* unknownScheme = " names no known kind of store; expected lmdb:PATH or postgresql://…";

std::atomic<ItemStore*> currentStore{nullptr};

std::unique_ptr<storage::Engine> openEngine(std::string_view url, const StoreOptions& options,
                                            std::string& reason) {
    if (!ItemStore::checkUrl(url, reason))
        return nullptr;
    if (storage::PostgresSettings::isUrl(url))
        return storage::PostgresEngine::open(url, options, reason);
    return storage::LmdbEngine::open(std::string(url.substr(lmdbScheme.size())), options, reason);
}

// Two processes that bind a new store at one moment agree on the first.
template <typename Sentence>
bool bind(StoreCore& core, std::string StoreIdentity::*place, std::string_view fingerprint,
          std::string& reason, Sentence sentence) {
    StoreRecords records(core);
    for (int tries = 0; tries < 8; ++tries) {
        const StoreIdentity found = records.identity();
        if (found.*place == fingerprint)
            return true;
        if (!(found.*place).empty()) {
            reason = sentence(found.*place);
            return false;
        }
        StoreIdentity bound = found;
        bound.*place = fingerprint;
        bool written = false;
        const CommitResult result = records.exchange(found, bound, written);
        reason = result.reason;
        if (!result || written)
            return result.durable;
    }
    reason = "the store " + core.url + " is changed by others all the time";
    return false;
}

}  // namespace

OverwriteGuard::~OverwriteGuard() = default;

bool ItemStore::checkUrl(std::string_view url, std::string& reason) {
    reason.clear();
    if (storage::PostgresSettings::isUrl(url))
        return storage::PostgresSettings().parse(url, storage::PostgresSettings::Files::leave, reason);
    if (url.substr(0, lmdbScheme.size()) != lmdbScheme)
        reason = "the store URL " + std::string(url) + unknownScheme;
    else if (url.size() == lmdbScheme.size())
        reason = "the store URL " + std::string(url) + " names no folder; expected lmdb:PATH";
    return reason.empty();
}

ItemStore::ItemStore(std::unique_ptr<StoreCore> core) : core_(std::move(core)) {}

std::unique_ptr<ItemStore> ItemStore::open(std::string_view url, const StoreOptions& options,
                                           std::string& reason) {
    reason.clear();
    std::unique_ptr<storage::Engine> engine = openEngine(url, options, reason);
    if (engine == nullptr)
        return nullptr;
    auto core = std::make_unique<StoreCore>(std::move(engine), std::string(url), options);
    if (!StoreRecords(*core).prepare(reason))
        return nullptr;
    // While a snapshot is held, no commit finds a page to use again.
    core->forgetSnapshot();
    return std::unique_ptr<ItemStore>(new ItemStore(std::move(core)));
}

ItemStore::~ItemStore() {
    ItemStore* self = this;
    if (currentStore.compare_exchange_strong(self, nullptr) &&
        System::getUniqueTimeSource() == core_->timeSource())
        System::setUniqueTimeSource(nullptr);
}

ItemStore* ItemStore::current() {
    return currentStore.load(std::memory_order_acquire);
}

void ItemStore::setCurrent(ItemStore* store) {
    currentStore = store;
    System::setUniqueTimeSource(store == nullptr ? nullptr : store->core_->timeSource());
}

const std::string& ItemStore::url() const {
    return core_->url;
}

const std::string& ItemStore::path() const {
    return core_->engine().folder();
}

const StoreOptions& ItemStore::options() const {
    return core_->options;
}

bool ItemStore::child(const Item& parent, Item& out) {
    return core_->read([&](StoreReader& reader) {
        if (!ItemNavigation::child(reader, parent, out))
            return false;
        reader.holdForFetch(out.size());
        return true;
    });
}

bool ItemStore::next(Item& position) {
    const auto goOn = [&](storage::EngineCursor& cursor, storage::FetchRoom& room) {
        if (!ItemNavigation::stepAhead(cursor, position))
            return false;
        room.holdForFetch(cursor.key(), cursor.value(), position.size(), cursor.generation);
        return true;
    };
    return core_->readAhead(goOn) || core_->read([&](StoreReader& reader) {
        if (!ItemNavigation::next(reader, position))
            return false;
        reader.holdForFetch(position.size());
        return true;
    });
}

bool ItemStore::next(Item& position, ConstByteSpan& value) {
    // A place that exists only through what lies below it has no value.
    const auto goOn = [&](storage::EngineCursor& cursor, storage::FetchRoom& room) {
        if (!ItemNavigation::stepAhead(cursor, position))
            return false;
        value = cursor.key().size() == position.size() ? room.hold(cursor.value()) : ConstByteSpan();
        return true;
    };
    return core_->readAhead(goOn) || core_->read([&](StoreReader& reader) {
        if (!ItemNavigation::next(reader, position))
            return false;
        value = reader.key().size() == position.size() ? reader.hold() : ConstByteSpan();
        return true;
    });
}

bool ItemStore::prev(Item& position) {
    return core_->read([&](StoreReader& reader) {
        if (!ItemNavigation::prev(reader, position))
            return false;
        reader.holdForFetch(position.size());
        return true;
    });
}

bool ItemStore::nextKey(Item& position) {
    return core_->read([&](StoreReader& reader) { return ItemNavigation::nextKey(reader, position); });
}

ConstByteSpan ItemStore::fetch(const Item& key) {
    ConstByteSpan out;
    if (key.isEmpty() || !core_->isUsable())
        return out;
    const storage::Bytes bytes = ItemNavigation::bytesOf(key);
    if (core_->takeHeld(bytes, out))
        return out;
    core_->read([&](StoreReader& reader) {
        if (!reader.exactly(bytes))
            return false;
        out = reader.hold();
        return true;
    });
    return out;
}

bool ItemStore::store(const Item& key, ConstByteSpan value) {
    return core_->write(ItemNavigation::bytesOf(key), value.view(), false);
}

bool ItemStore::store(const Item& key, ConstByteSpan value, const std::shared_ptr<OverwriteGuard>& guard) {
    if (guard == nullptr || core_->engine().tellsGuards())
        return core_->write(ItemNavigation::bytesOf(key), value.view(), false, guard);
    const ConstByteSpan older = accepts(key, value.size()) ? fetch(key) : ConstByteSpan();
    if (!older.isNull() && older.view() == value.view()) {
        guard->repeated(key);
    } else if (!older.isNull()) {
        const std::string kept(older.view());
        for (const auto& [place, content] : guard->keep(key, ConstByteSpan(kept)))
            store(place, content.bytes());
        guard->replaced(key);
    }
    return store(key, value);
}

bool ItemStore::remove(const Item& key) {
    return core_->write(ItemNavigation::bytesOf(key), {}, true);
}

CommitResult ItemStore::flush() {
    ItemStore* const store = current();
    return store == nullptr ? CommitResult{false, "no store is open"} : store->flushThread();
}

CommitResult ItemStore::flushThread() {
    return core_->flush();
}

CommitResult ItemStore::probeCommit(unsigned milliseconds) {
    return core_->probe(milliseconds);
}

SteadyRead::SteadyRead() : SteadyRead(ItemStore::current()) {}

SteadyRead::SteadyRead(ItemStore* store) : store_(store), faultsBefore_(0) {
    if (store_ == nullptr)
        return;
    faultsBefore_ = store_->core_->engine().readFaults;
    store_->core_->beginSteady();
}

SteadyRead::~SteadyRead() {
    if (store_ != nullptr)
        store_->core_->endSteady();
}

CommitResult SteadyRead::result() const {
    if (store_ == nullptr)
        return {};
    StoreCore& core = *store_->core_;
    // Other threads' faults count where there is no snapshot of one's own: rather once too often than a gap untold.
    const bool hasFault =
        core.thread().steady ? core.isSteadyLost() : core.engine().readFaults != faultsBefore_;
    if (!hasFault)
        return {};
    return {false, "the store " + store_->url() + " could not be read to its end"};
}

std::uint64_t ItemStore::pendingBytes() const {
    return core_->commits().pendingBytes();
}

std::size_t ItemStore::keyLimit() const {
    return core_->engine().keyLimit();
}

std::size_t ItemStore::valueLimit() const {
    return core_->valueLimit;
}

void ItemStore::setValueLimit(std::size_t bytes) {
    core_->valueLimit = bytes;
}

bool ItemStore::accepts(const Item& key, std::size_t valueSize, std::string* reason) const {
    std::string ignored;
    return core_->accepts(key.size(), valueSize, reason == nullptr ? ignored : *reason);
}

StoreIdentity ItemStore::identity() {
    return StoreRecords(*core_).identity();
}

CommitResult ItemStore::setSite(std::string_view site) {
    StoreIdentity own = identity();
    if (own.site == site)
        return {};
    own.site = site;
    return StoreRecords(*core_).write(own);
}

bool ItemStore::bindSiteKey(std::string_view fingerprint, std::string& reason) {
    return bind(*core_, &StoreIdentity::siteKeyFingerprint, fingerprint, reason,
                [&](const std::string& other) {
                    return "the store " + url() + " belongs to the site key " + other + ", not to " +
                           std::string(fingerprint);
                });
}

bool ItemStore::bindQueueIdentity(std::string_view fingerprint, std::string& reason) {
    return bind(*core_, &StoreIdentity::queueIdentity, fingerprint, reason, [&](const std::string& other) {
        return "the queues in the store " + url() + " are filled by the identity " + other + ", not by " +
               std::string(fingerprint);
    });
}

std::vector<StoreLog> ItemStore::logs() {
    return StoreRecords(*core_).logs();
}

CommitResult ItemStore::setLog(const StoreLog& log) {
    return StoreRecords(*core_).write(log);
}

bool ItemStore::findLog(std::string_view name, StoreLog& out) {
    for (StoreLog& log : logs()) {
        if (log.name == name) {
            out = std::move(log);
            return true;
        }
    }
    return false;
}

Item ItemStore::sidePath(std::string_view name) {
    Item out;
    out.addBytes("side", 4);
    out.addString(name);
    return out;
}

bool ItemStore::isSideKey(const Item& key) {
    return !key.isEmpty() && key.data()[0] == codec::bytes;
}

long long ItemStore::uniqueTime() {
    return core_->clock().next(System::getUTCDateTime(), 0);
}

ClockState ItemStore::clock() {
    return core_->clock().state(System::getUTCDateTime());
}

StoreStatistics ItemStore::statistics() const {
    StoreStatistics out;
    core_->commits().fill(out);
    out.refusedWrites = core_->refused;
    out.reopened = core_->engine().reopened;
    out.mapGrown = core_->engine().mapGrown;
    out.reachable = !core_->engine().unreachable;
    return out;
}

StoreSpace ItemStore::space() {
    StoreSpace out;
    core_->engine().space(out);
    return out;
}

void ItemStore::setCommitObserver(std::function<void(const CommitReport&)> observer) {
    core_->commits().setObserver(std::move(observer));
}

}  // namespace qel
