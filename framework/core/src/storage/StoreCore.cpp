#include "storage/StoreCore.h"

#include <pthread.h>

#include <utility>

#include "qelCore/String.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

using storage::Bytes;
using storage::PendingBatch;
using storage::ThreadState;

namespace {

std::string printKey(Bytes key) {
    Item item;
    item.setPlain(reinterpret_cast<const unsigned char*>(key.data()), std::min<std::size_t>(key.size(), 600));
    return item.asString().str();
}

std::unique_ptr<PendingBatch> makeBatch(ThreadState& state) {
    auto batch = std::make_unique<PendingBatch>();
    batch->fates.push_back(state.fate);
    if (state.batchFate != nullptr)
        batch->fates.push_back(state.batchFate);
    return batch;
}

}  // namespace

std::atomic<std::uint32_t> StoreCore::forksSeen{0};

std::uint32_t StoreCore::watchForks() {
    static const int registered = pthread_atfork(nullptr, nullptr, [] { ++forksSeen; });
    static_cast<void>(registered);
    return forksSeen;
}

StoreCore::StoreCore(std::unique_ptr<storage::Engine> engine, std::string storeUrl,
                     const StoreOptions& storeOptions)
    : url(std::move(storeUrl)),
      options(storeOptions),
      valueLimit(storeOptions.valueLimit),
      number_(storage::nextStoreNumber()),
      forks_(watchForks()),
      engine_(std::move(engine)),
      clock_(engine_->clockPage()),
      timeSource_(std::make_shared<storage::StoreTimeSource>(clock_)),
      commits_(std::make_unique<storage::GroupCommit>(*engine_, overlay_, options)) {}

StoreCore::~StoreCore() {
    if (!isForeignProcess()) {
        commits_.reset();
        // Times were handed out since the last mark: they stay handed out, whatever becomes of the shared page.
        if (!options.readOnly && clock_.isMarkDue())
            engine_->commit({});
        return;
    }
    // The parent's threads, locks and places among the readers are not this process's to end.
    static_cast<void>(commits_.release());
    static_cast<void>(engine_.release());
}

bool StoreCore::reportForeign() const {
    logging::MessageStream(3, 2) << "the store " << url
                                 << " was opened before fork and cannot be used in the child";
    return false;
}

void StoreCore::forgetSnapshot() {
    storage::ThreadState& state = thread();
    if (state.cursor == nullptr || isForeignProcess())
        return;
    state.room.forget();
    const std::lock_guard guard(state.cursor->lock);
    if (!state.cursor->closed)
        state.cursor->rest();
}

bool StoreCore::accepts(std::size_t keySize, std::size_t valueSize, std::string& reason) const {
    const std::size_t keyLimit = engine_->keyLimit();
    const std::size_t limit = valueLimit.load(std::memory_order_relaxed);
    if (options.readOnly)
        reason = "the store " + url + " was opened for reading only";
    else if (keySize == 0)
        reason = "an empty key cannot be written to the store";
    else if (keySize > keyLimit)
        reason =
            "a key of " + std::to_string(keySize) + " bytes is over the limit of " + std::to_string(keyLimit);
    else if (valueSize > limit)
        reason = "a value of " + std::to_string(valueSize) + " bytes is over the limit of " +
                 std::to_string(limit);
    else
        return true;
    return false;
}

bool StoreCore::refuse(ThreadState& state, Harms harms, const std::string& reason) {
    ++refused;
    logging::MessageStream(3, 2) << reason;
    state.fate->fail(reason);
    if (harms == Harms::wholeBatch && state.batchFate != nullptr)
        state.batchFate->fail(reason);
    return false;
}

bool StoreCore::write(Bytes key, Bytes value, bool removes, const std::shared_ptr<OverwriteGuard>& guard) {
    if (!isUsable())
        return false;
    ThreadState& state = thread();
    std::string reason;
    if (!accepts(key.size(), value.size(), reason))
        return refuse(state, options.readOnly ? Harms::wholeBatch : Harms::oneWrite,
                      "refused to store under " + printKey(key) + ": " + reason);
    const std::size_t size = PendingBatch::sizeOf(key, value);
    if (state.depth != 0 && commits_->pendingBytes() + size > options.pendingLimit)
        passOn(state);
    if (!commits_->reserve(size))
        return refuse(state, Harms::wholeBatch,
                      "refused to store under " + printKey(key) + ": too much is waiting to be written");
    std::unique_ptr<PendingBatch> single;
    if (state.depth == 0)
        single = makeBatch(state);
    PendingBatch& batch = single != nullptr ? *single : *state.batch;
    overlay_.put(batch.add(key, value, removes, guard));
    if (single == nullptr) {
        if (batch.bytes() >= WriteBatch::largest)
            passOn(state);
        return true;
    }
    if (options.durability == Durability::deferred) {
        single->deferred = true;
        single->deferredMilliseconds = options.deferredMilliseconds;
        commits_->submit(std::move(single));
        return true;
    }
    const auto outcome = std::make_shared<storage::Fate>();
    single->fates.push_back(outcome);
    commits_->submitAndWait(std::move(single));
    return outcome->look().durable;
}

CommitResult StoreCore::writeOwn(Bytes key, Bytes value) {
    if (!isUsable() || options.readOnly)
        return {false, "the store " + url + " cannot be written by this process"};
    if (!commits_->reserve(PendingBatch::sizeOf(key, value)))
        return {false, "too much is waiting to be written to the store " + url};
    const auto outcome = std::make_shared<storage::Fate>();
    auto batch = std::make_unique<PendingBatch>();
    batch->fates.push_back(outcome);
    overlay_.put(batch->add(key, value, false));
    commits_->submitAndWait(std::move(batch));
    return outcome->look();
}

// What the open batch holds so far goes on its way: it has become too large for one transaction, or has to wait for room.
void StoreCore::passOn(ThreadState& state) {
    if (state.batch->isEmpty())
        return;
    state.passedOn = true;
    commits_->submit(std::exchange(state.batch, makeBatch(state)));
}

CommitResult StoreCore::flush() {
    if (!isUsable())
        return {false, "the store was opened before fork"};
    ThreadState& state = thread();
    if (state.depth != 0)
        passOn(state);
    commits_->drain();
    return state.fate->take();
}

void StoreCore::beginSteady() {
    ThreadState& state = thread();
    if (state.steadyDepth++ != 0)
        return;
    state.room.forget();
    auto cursor = engine_->makeSteadyCursor();
    state.steady = cursor != nullptr;
    if (state.steady)
        state.parked = std::exchange(state.cursor, std::move(cursor));
}

void StoreCore::endSteady() {
    ThreadState& state = thread();
    if (--state.steadyDepth != 0 || !state.steady)
        return;
    {
        const std::lock_guard guard(state.cursor->lock);
        state.cursor->retire();
    }
    state.cursor = std::exchange(state.parked, nullptr);
    state.steady = false;
    state.room.forget();
}

bool StoreCore::isSteadyLost() {
    const ThreadState& state = thread();
    return state.steady && state.cursor->isLost();
}

CommitResult StoreCore::probe(unsigned milliseconds) {
    static constexpr char key[] = {storage::ownRecords, 'p'};
    if (!isUsable() || options.readOnly)
        return {false, "the store " + url + " cannot be written by this process"};
    const auto outcome = std::make_shared<storage::Fate>();
    auto batch = std::make_unique<PendingBatch>();
    batch->fates.push_back(outcome);
    batch->add({key, sizeof key}, {}, false);
    if (!commits_->reserve(batch->bytes()))
        return {false, "too much is waiting to be written to the store " + url};
    commits_->submit(std::move(batch));
    const unsigned patience = milliseconds == 0 ? options.patienceMilliseconds : milliseconds;
    if (!commits_->drain(patience))
        return {false, (engine_->unreachable ? engine_->folder() + " cannot be reached: " : std::string()) +
                           "the store " + url + " did not commit within " + std::to_string(patience) +
                           " milliseconds"};
    return outcome->look();
}

void StoreCore::openBatch() {
    ThreadState& state = thread();
    if (state.depth++ == 0) {
        state.batchFate = std::make_shared<storage::Fate>();
        state.batch = makeBatch(state);
    }
}

void StoreCore::submitBatch(WriteBatch::Completion done, bool joined) {
    ThreadState& state = thread();
    if (joined) {
        if (done)
            state.joined.push_back(std::move(done));
        return;
    }
    auto completions = std::exchange(state.joined, {});
    if (done)
        completions.push_back(std::move(done));
    const auto fate = std::exchange(state.batchFate, std::make_shared<storage::Fate>());
    auto batch = std::exchange(state.batch, nullptr);
    state.batch = makeBatch(state);
    const bool passedOn = std::exchange(state.passedOn, false);
    if (batch->isEmpty() && !passedOn) {
        for (const auto& completion : completions)
            completion(fate->look());
        return;
    }
    for (auto& completion : completions) {
        batch->completions.push_back([fate, call = std::move(completion)](const CommitResult& result) {
            call(result ? fate->look() : result);
        });
    }
    commits_->submit(std::move(batch));
}

void StoreCore::closeBatch() {
    ThreadState& state = thread();
    if (--state.depth != 0)
        return;
    submitBatch({}, false);
    state.batch.reset();
    state.batchFate.reset();
}

CommitResult StoreCore::commitBatch() {
    ThreadState& state = thread();
    const std::shared_ptr<storage::Fate> fate = state.batchFate;
    passOn(state);
    commits_->drain();
    return fate->look();
}

}  // namespace qel
