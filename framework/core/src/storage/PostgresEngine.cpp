#include "storage/PostgresEngine.h"

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <utility>

#include "qelCore/logging/MessageStream.h"
#include "storage/PostgresSchema.h"
#include "storage/UniqueClock.h"

namespace qel::storage {

namespace {

// Connections kept for the next read; threads that read at one moment beyond them connect anew.
constexpr std::size_t keptReaders = 4;
// A page ends early rather than take more memory than this.
constexpr std::size_t mostPageBytes = std::size_t{16} << 20;
// Beyond this many entries the database's own estimate has to do.
constexpr std::uint64_t countedEntries = 100000;
constexpr const char* spaceQuery =
    "SELECT (SELECT count(*) FROM (SELECT 1 FROM qel_items LIMIT 100001) AS counted), "
    "(SELECT greatest(reltuples, 0)::bigint FROM pg_class WHERE oid = 'qel_items'::regclass), "
    "pg_total_relation_size('qel_items')";

void cancel(PGconn* connection) {
    PGcancel* const request = PQgetCancel(connection);
    char text[256];
    PQcancel(request, text, sizeof text);
    PQfreeCancel(request);
}

Bytes field(const PGresult* result, int column) {
    return {PQgetvalue(result, 0, column), static_cast<std::size_t>(PQgetlength(result, 0, column))};
}

// Row by row, so that memory is bounded by what is kept. Returns how many came; `cut` when some were left out.
bool collectRows(PostgresConnection& connection, PostgresPage& page, bool& cut, PostgresError& error) {
    while (PGresult* const raw = PQgetResult(connection.handle())) {
        const PostgresResult result(raw);
        const ExecStatusType status = PQresultStatus(raw);
        if (status == PGRES_SINGLE_TUPLE && !cut) {
            page.add(field(raw, 0), field(raw, 1));
            cut = page.bytes() > mostPageBytes;
            if (cut)
                cancel(connection.handle());
        } else if (status == PGRES_FATAL_ERROR && !cut && !error.isSet()) {
            error = connection.errorOf(raw);
        }
    }
    return !error.isSet() && !connection.isBroken();
}

}  // namespace

std::unique_ptr<PostgresEngine> PostgresEngine::open(std::string_view url, const StoreOptions& options,
                                                     std::string& reason) {
    std::unique_ptr<PostgresEngine> engine(new PostgresEngine(options));
    return engine->start(url, reason) ? std::move(engine) : nullptr;
}

PostgresEngine::~PostgresEngine() {
    for (const auto& cursor : cursors_) {
        const std::lock_guard guard(cursor->lock);
        cursor->retire();
    }
}

bool PostgresEngine::start(std::string_view url, std::string& reason) {
    if (!settings_.parse(url, reason))
        return false;
    PostgresError error;
    const auto first = PostgresConnection::open(settings_, !options_.readOnly, error);
    if (first == nullptr) {
        reason = sentence("cannot reach", error);
        return false;
    }
    std::string record;
    if (!PostgresSchema::prepareTables(*first, options_.create && !options_.readOnly, error) ||
        (!options_.readOnly && !settings_.allowsUnsafeCommit() &&
         !PostgresSchema::isDurable(*first, error)) ||
        !PostgresSchema::readClock(*first, record, error)) {
        reason = sentence("cannot use", error);
        return false;
    }
    UniqueClock::load(clock_, record);
    writers_.resize(settings_.writers());
    return true;
}

std::shared_ptr<EngineCursor> PostgresEngine::makeCursor() {
    return keep(std::make_shared<PostgresCursor>(*this));
}

std::shared_ptr<EngineCursor> PostgresEngine::makeSteadyCursor() {
    return keep(std::make_shared<PostgresCursor>(*this, PostgresCursor::Keeps::snapshot));
}

std::shared_ptr<PostgresCursor> PostgresEngine::keep(std::shared_ptr<PostgresCursor> cursor) {
    const std::lock_guard guard(cursorsMutex_);
    std::erase_if(cursors_, [](const auto& other) { return other.use_count() == 1; });
    cursors_.push_back(cursor);
    return cursor;
}

unsigned PostgresEngine::sweep() {
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

std::unique_ptr<PostgresConnection> PostgresEngine::borrowReader(PostgresError& error) {
    {
        const std::lock_guard guard(readersMutex_);
        if (!readers_.empty()) {
            auto reader = std::move(readers_.back());
            readers_.pop_back();
            return reader;
        }
    }
    auto fresh = PostgresConnection::open(settings_, !options_.readOnly, error);
    if (fresh != nullptr && !PostgresSchema::prepareReading(*fresh, error))
        fresh.reset();
    return fresh;
}

void PostgresEngine::giveBack(std::unique_ptr<PostgresConnection> reader) {
    const std::lock_guard guard(readersMutex_);
    // When one breaks, the others lead to the same server that is gone.
    if (reader->isBroken())
        readers_.clear();
    else if (readers_.size() < keptReaders)
        readers_.push_back(std::move(reader));
}

bool PostgresEngine::tryRead(const Action& action, PostgresError& error) {
    auto reader = borrowReader(error);
    if (reader == nullptr)
        return false;
    const bool done = action(*reader, error);
    if (!done && !error.isSet())
        error = reader->error();
    giveBack(std::move(reader));
    return done;
}

bool PostgresEngine::read(const Action& action) {
    const Clock::time_point end = deadline();
    PostgresError error;
    for (unsigned tries = 0;; ++tries) {
        error = {};
        if (tryRead(action, error)) {
            note(true, error);
            return true;
        }
        if (!error.isPassing() || !waitForNext(end, tries))
            break;
        noteFailedTry(tries, error);
    }
    note(!error.isPassing(), error);
    ++readFaults;
    logging::MessageStream(3, 2) << sentence("cannot read", error);
    return false;
}

bool PostgresEngine::askPage(PostgresConnection& connection, const std::string& bound, std::size_t rows,
                             bool forward) {
    const std::string limit = encodedInteger(static_cast<long long>(rows));
    ++pagesRead;
    return connection.send(forward ? PostgresSchema::readFrom : PostgresSchema::readBefore,
                           {&bound, &limit}) &&
           PQsetSingleRowMode(connection.handle()) == 1;
}

bool PostgresEngine::takePage(PostgresConnection& connection, PostgresPage& page, const std::string& bound,
                              std::size_t rows, bool forward, bool& cut, PostgresError& error) {
    cut = false;
    if (!collectRows(connection, page, cut, error))
        return false;
    const bool isLast = !cut && page.size() < rows;
    if (forward)
        page.endForward(bound, isLast);
    else
        page.endBackward(bound, isLast);
    return true;
}

bool PostgresEngine::readPage(PostgresPage& page, const std::string& bound, std::size_t rows, bool forward) {
    const bool done = read([&](PostgresConnection& connection, PostgresError& error) {
        bool cut = false;
        page.clear();
        page.commits = commitCount();
        page.readAt = PostgresPage::Clock::now();
        return askPage(connection, bound, rows, forward) &&
               takePage(connection, page, bound, rows, forward, cut, error);
    });
    if (!done)
        page.clear();
    return done;
}

// Nothing was read yet: it may be tried as often as there is time for.
bool PostgresEngine::beginSnapshot(PostgresSnapshot& snapshot) {
    return read([&](PostgresConnection&, PostgresError& error) {
        auto fresh = PostgresConnection::open(settings_, !options_.readOnly, error);
        if (fresh == nullptr || !PostgresSchema::prepareReading(*fresh, error) ||
            !PostgresSchema::beginSnapshot(*fresh, error))
            return false;
        snapshot.connection = std::move(fresh);
        return true;
    });
}

void PostgresEngine::askAhead(PostgresSnapshot& snapshot, const std::string& from, std::size_t rows) {
    if (!askPage(*snapshot.connection, from, rows, true))
        return;
    snapshot.aheadFrom = from;
    snapshot.aheadRows = rows;
}

// True when the page that is wanted is under way. Another one that is has to be taken off the connection first.
bool PostgresEngine::takeAhead(PostgresSnapshot& snapshot, const std::string& bound, bool forward,
                               std::size_t& rows, PostgresError& error) {
    const std::size_t asked = std::exchange(snapshot.aheadRows, 0);
    if (asked != 0 && forward && snapshot.aheadFrom == bound) {
        rows = asked;
        return true;
    }
    PostgresPage unused;
    bool cut = false;
    if (asked != 0 && collectRows(*snapshot.connection, unused, cut, error) && cut)
        PostgresSchema::returnToSnapshot(*snapshot.connection, error);
    return false;
}

bool PostgresEngine::readPage(PostgresSnapshot& snapshot, PostgresPage& page, const std::string& bound,
                              std::size_t rows, bool forward) {
    page.clear();
    if (snapshot.lost)
        return false;
    snapshot.lost = snapshot.connection == nullptr && !beginSnapshot(snapshot);
    if (snapshot.lost)
        return false;
    bool cut = false;
    PostgresError error;
    PostgresConnection& connection = *snapshot.connection;
    // A query that was cancelled for the size of its rows ends the transaction up to its last mark.
    if ((takeAhead(snapshot, bound, forward, rows, error) || askPage(connection, bound, rows, forward)) &&
        takePage(connection, page, bound, rows, forward, cut, error) &&
        (!cut || PostgresSchema::returnToSnapshot(connection, error)))
        return true;
    if (!error.isSet())
        error = connection.error();
    logging::MessageStream(3, 2) << sentence("lost the snapshot that was read of", error);
    ++readFaults;
    snapshot.lost = true;
    snapshot.connection.reset();
    page.clear();
    return false;
}

PostgresEngine::Clock::time_point PostgresEngine::deadline() const {
    // After a try in vain the next one is not repeated.
    const unsigned patience = unreachable ? 0 : options_.patienceMilliseconds;
    return Clock::now() + std::chrono::milliseconds(patience);
}

bool PostgresEngine::waitForNext(Clock::time_point end, unsigned tries) const {
    // The first retry is for a connection that broke while it lay idle.
    const auto pause = std::chrono::milliseconds(tries == 0 ? 0 : std::min(20U << std::min(tries, 5U), 500U));
    if (tries != 0 && Clock::now() + pause >= end)
        return false;
    std::this_thread::sleep_for(pause);
    return true;
}

// The first failure may be a connection that broke while it lay idle; the second says that the database is away, long
// before the patience is over.
void PostgresEngine::noteFailedTry(unsigned tries, const PostgresError& error) {
    if (tries > 0 && error.isAway())
        note(false, error);
}

void PostgresEngine::note(bool reached, const PostgresError& error) {
    if (unreachable.exchange(!reached) == !reached)
        return;
    if (reached)
        logging::MessageStream(1, 2) << settings_.place() << " is reached again";
    else
        logging::MessageStream(3, 2) << sentence("lost", error);
}

std::string PostgresEngine::sentence(const char* what, const PostgresError& error) const {
    std::string out = std::string(what) + " " + settings_.place() + ": " + error.sentence;
    if (!error.state.empty())
        out += " (" + error.state + ")";
    return out;
}

std::size_t PostgresEngine::keyLimit() const {
    return 511;  // the embedded engine's, so that entries can move either way
}

void PostgresEngine::space(StoreSpace& out) {
    read([&](PostgresConnection& connection, PostgresError& error) {
        const PostgresResult found = connection.run(spaceQuery, error);
        if (found == nullptr)
            return false;
        const auto number = [&](int column) {
            return std::strtoull(PQgetvalue(found.get(), 0, column), nullptr, 10);
        };
        out.entries = number(0) <= countedEntries ? number(0) : std::max<std::uint64_t>(number(0), number(1));
        out.fileBytes = number(2);
        out.usedBytes = number(2);
        return true;
    });
}

CommitResult PostgresEngine::copyTo(const std::string&, bool) {
    return {false,
            settings_.place() +
                " is backed up by the database's own means; expected an lmdb:PATH store, or store copy"};
}

}  // namespace qel::storage
