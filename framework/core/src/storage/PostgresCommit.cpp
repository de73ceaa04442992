#include <algorithm>
#include <unordered_map>

#include "qelCore/logging/MessageStream.h"
#include "storage/Navigation.h"
#include "storage/PostgresEngine.h"
#include "storage/PostgresSchema.h"
#include "storage/UniqueClock.h"

namespace qel::storage {

namespace {

// Fewer writes than this are not worth a transaction of their own.
constexpr std::size_t writesPerPart = 64;

using Batches = std::vector<const std::vector<Write>*>;

std::unordered_map<Bytes, const Write*> lastOfEach(const Batches& batches, std::size_t total) {
    std::unordered_map<Bytes, const Write*> last;
    last.reserve(total);
    for (const auto* const batch : batches)
        for (const Write& write : *batch)
            last[write.key] = &write;
    return last;
}

}  // namespace

// Whole batches to each connection, of each key its last write only: so no key is written by two transactions at one
// time, and none of them waits for another. In order of key, so that those of several daemons do not block each other.
std::vector<PostgresTransaction> PostgresEngine::divide(const Batches& batches) const {
    std::size_t total = 0;
    for (const auto* const batch : batches)
        total += batch->size();
    const auto last = lastOfEach(batches, total);
    const std::size_t count = std::clamp<std::size_t>(total / writesPerPart, 1, writers_.size());
    const std::size_t share = (total + count - 1) / count;
    std::vector<PostgresTransaction> parts(1);
    std::size_t taken = 0;
    for (const auto* const batch : batches) {
        if (taken >= share && parts.size() < count) {
            parts.emplace_back();
            taken = 0;
        }
        taken += batch->size();
        for (const Write& write : *batch) {
            const Write* const winner = last.at(write.key);
            if (winner == &write)
                parts.back().writes.push_back(&write);
            else if (write.guard != nullptr)
                parts.back().superseded.emplace_back(&write, winner);
        }
    }
    // Where every write of a part is made again by a later one, nothing is left of it.
    std::erase_if(parts, [](const auto& part) { return part.writes.empty() && part.superseded.empty(); });
    for (PostgresTransaction& part : parts)
        std::sort(part.writes.begin(), part.writes.end(),
                  [](const Write* a, const Write* b) { return a->key < b->key; });
    return parts;
}

// All parts are under way before the first answer is awaited. What is done stays done: a part is sent again only when
// its outcome is a failure or unknown, and then it overwrites itself.
PostgresError PostgresEngine::tryCommit(std::vector<PostgresTransaction>& parts, const std::string* mark,
                                        long long markTime) {
    PostgresError error;
    std::vector<std::size_t> sent;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (parts[i].done)
            continue;
        if (!writers_[i].isConnected() && hadWriters_)
            ++reopened;
        if (!writers_[i].connect(settings_, error))
            break;
        hadWriters_ = hadWriters_ || i == 0;
        if (writers_[i].start(parts[i], i == 0 ? mark : nullptr, markTime)) {
            sent.push_back(i);
            continue;
        }
        error = {"", "the connection broke while a transaction was sent"};
        writers_[i].disconnect();
        break;
    }
    for (const std::size_t i : sent)
        writers_[i].settle(parts[i]);
    for (const std::size_t i : sent) {
        const PostgresError failed = writers_[i].finish();
        parts[i].done = !failed.isSet();
        if (parts[i].done)
            parts[i].tellGuards();
        if (failed.isSet() && (!error.isSet() || error.isPassing()))
            error = failed;
    }
    return error;
}

CommitResult PostgresEngine::commit(const Batches& batches) {
    const std::lock_guard guard(writing_);
    std::vector<PostgresTransaction> parts = divide(batches);
    std::string record;
    long long mark = 0;
    const bool isMarkDue = UniqueClock::dueMark(clock_, System::getUTCDateTime(), record, mark);
    if (parts.empty() && !isMarkDue)
        return {};
    // The mark alone.
    if (parts.empty())
        parts.emplace_back();
    const Clock::time_point end = deadline();
    PostgresError error;
    for (unsigned tries = 0;; ++tries) {
        error = tryCommit(parts, isMarkDue ? &record : nullptr, mark);
        if (!error.isSet() || !error.isPassing() || !waitForNext(end, tries))
            break;
        noteFailedTry(tries, error);
        logging::MessageStream(2, 2) << sentence("writes again to", error);
    }
    remember(parts);
    note(!error.isSet() || !error.isPassing(), error);
    if (error.isSet())
        return {false, sentence("cannot write to", error)};
    if (isMarkDue)
        UniqueClock::markCommitted(clock_, mark);
    return {};
}

// Seldom enough for a connection of its own.
std::optional<CommitResult> PostgresEngine::exchange(Bytes key, Bytes before, Bytes after, bool& exchanged) {
    PostgresError error;
    const auto connection = PostgresConnection::open(settings_, true, error);
    if (connection == nullptr || !PostgresSchema::prepareExchange(*connection, error))
        return CommitResult{false, sentence("cannot write to", error)};
    const std::string place(key);
    const std::string old(before);
    const std::string fresh(after);
    const PostgresResult done =
        before.empty() ? connection->execute(PostgresSchema::insertNew, {&place, &fresh}, error)
                       : connection->execute(PostgresSchema::exchange, {&place, &fresh, &old}, error);
    if (done == nullptr)
        return CommitResult{false, sentence("cannot write to", error)};
    exchanged = std::string_view(PQcmdTuples(done.get())) == "1";
    return CommitResult();
}

// Also after a failure, for some of it may have been written.
void PostgresEngine::remember(const std::vector<PostgresTransaction>& parts) {
    Commit commit;
    for (const PostgresTransaction& part : parts) {
        for (const Write* const write : part.writes)
            commit.keys.emplace_back(write->key);
        for (const auto& [key, value] : part.kept)
            commit.keys.emplace_back(ItemNavigation::bytesOf(key));
    }
    std::sort(commit.keys.begin(), commit.keys.end());
    commit.at = Clock::now();
    const std::lock_guard guard(recentMutex_);
    // Pages older than their bound are read anew in any case.
    while (!recent_.empty() && commit.at - recent_.front().at > 2 * PostgresCursor::maxAge)
        recent_.pop_front();
    commit.number = commitCount_ + 1;
    recent_.push_back(std::move(commit));
    commitCount_.store(recent_.back().number, std::memory_order_release);
}

void PostgresEngine::tellWritten(PostgresPage& page) const {
    if (page.commits == commitCount())
        return;
    const std::lock_guard guard(recentMutex_);
    for (auto commit = recent_.rbegin(); commit != recent_.rend() && commit->number > page.commits;
         ++commit) {
        auto at = std::lower_bound(commit->keys.begin(), commit->keys.end(), page.low());
        for (; at != commit->keys.end() && (page.isEndless() || *at < page.high()); ++at)
            page.noteWritten(*at);
    }
    page.commits = recent_.empty() ? page.commits : recent_.back().number;
}

}  // namespace qel::storage
