#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "storage/Engine.h"
#include "storage/PostgresConnection.h"
#include "storage/PostgresCursor.h"
#include "storage/PostgresWriter.h"
#include "storage/SharedPage.h"

namespace qel::storage {

/// The engine for a log that has outgrown one machine: one table of keys and values in a database that several
/// daemons share. docs/postgresql.md describes it.
class PostgresEngine final : public Engine {
  public:
    /// Null with a sentence.
    static std::unique_ptr<PostgresEngine> open(std::string_view url, const StoreOptions& options,
                                                std::string& reason);
    ~PostgresEngine() override;

    std::shared_ptr<EngineCursor> makeCursor() override;
    std::shared_ptr<EngineCursor> makeSteadyCursor() override;
    void adoptGrowth() override {}
    unsigned sweep() override;
    CommitResult commit(const std::vector<const std::vector<Write>*>& writes) override;
    bool tellsGuards() const override { return true; }
    std::optional<CommitResult> exchange(Bytes key, Bytes before, Bytes after, bool& exchanged) override;
    std::size_t keyLimit() const override;
    void space(StoreSpace& out) override;
    CommitResult copyTo(const std::string& file, bool compact) override;
    ClockPage& clockPage() override { return clock_; }
    const std::string& folder() const override { return settings_.place(); }

    /// For cursors. Reads at most `rows` entries from `bound` upwards, or below it downwards. False when the database
    /// could not be read within the store's patience.
    bool readPage(PostgresPage& page, const std::string& bound, std::size_t rows, bool forward);
    /// The same in a snapshot, which begins with its first page and is lost with the first that fails.
    bool readPage(PostgresSnapshot& snapshot, PostgresPage& page, const std::string& bound, std::size_t rows,
                  bool forward);
    /// Asks for a page without waiting for it; the next `readPage` from there takes it.
    void askAhead(PostgresSnapshot& snapshot, const std::string& from, std::size_t rows);
    /// Commits of this process so far.
    std::uint64_t commitCount() const { return commitCount_.load(std::memory_order_acquire); }
    /// Tells the page what this process has committed since; then it is as good as one read now.
    void tellWritten(PostgresPage& page) const;
    /// Round trips made for reading.
    std::atomic<std::uint64_t> pagesRead{0};

  private:
    using Clock = std::chrono::steady_clock;
    using Action = std::function<bool(PostgresConnection&, PostgresError&)>;

    struct Commit {
        std::uint64_t number;
        Clock::time_point at;
        std::vector<std::string> keys;
    };

    explicit PostgresEngine(const StoreOptions& options) : options_(options) {}
    bool start(std::string_view url, std::string& reason);

    std::shared_ptr<PostgresCursor> keep(std::shared_ptr<PostgresCursor> cursor);
    bool askPage(PostgresConnection& connection, const std::string& bound, std::size_t rows, bool forward);
    bool takePage(PostgresConnection& connection, PostgresPage& page, const std::string& bound,
                  std::size_t rows, bool forward, bool& cut, PostgresError& error);
    bool takeAhead(PostgresSnapshot& snapshot, const std::string& bound, bool forward, std::size_t& rows,
                   PostgresError& error);
    bool beginSnapshot(PostgresSnapshot& snapshot);
    bool read(const Action& action);
    bool tryRead(const Action& action, PostgresError& error);
    std::unique_ptr<PostgresConnection> borrowReader(PostgresError& error);
    void giveBack(std::unique_ptr<PostgresConnection> reader);
    Clock::time_point deadline() const;
    /// Waits before the next try; false when there is no time for one.
    bool waitForNext(Clock::time_point deadline, unsigned tries) const;

    std::vector<PostgresTransaction> divide(const std::vector<const std::vector<Write>*>& writes) const;
    PostgresError tryCommit(std::vector<PostgresTransaction>& parts, const std::string* mark,
                            long long markTime);
    void remember(const std::vector<PostgresTransaction>& parts);
    void noteFailedTry(unsigned tries, const PostgresError& error);
    void note(bool reached, const PostgresError& error);
    std::string sentence(const char* what, const PostgresError& error) const;

    const StoreOptions options_;
    PostgresSettings settings_;
    ClockPage clock_{};

    std::mutex writing_;
    std::vector<PostgresWriter> writers_;
    bool hadWriters_ = false;

    std::mutex readersMutex_;
    std::vector<std::unique_ptr<PostgresConnection>> readers_;
    std::mutex cursorsMutex_;
    std::vector<std::shared_ptr<PostgresCursor>> cursors_;

    std::atomic<std::uint64_t> commitCount_{0};
    mutable std::mutex recentMutex_;
    std::deque<Commit> recent_;
};

}  // namespace qel::storage
