#pragma once

#include <lmdb.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "storage/Engine.h"
#include "storage/LmdbCursor.h"
#include "storage/SharedPage.h"
#include "storage/StoreFolder.h"

namespace qel::storage {

/// The embedded engine: one folder, shared by the processes of one machine.
class LmdbEngine final : public Engine {
  public:
    /// Null with a sentence.
    static std::unique_ptr<LmdbEngine> open(const std::string& path, const StoreOptions& options,
                                            std::string& reason);
    ~LmdbEngine() override;

    /// How many pages in use a store's data file lacks at its end; zero when it is whole, or no such file. Nobody may have it
    /// open. Free pages may never have been written, and nothing is wrong with a file that lacks those only. The end is
    /// filled with zeros: reading behind the end of a file would be the end of the process.
    static std::uint64_t lostPages(const std::string& file);

    std::shared_ptr<EngineCursor> makeCursor() override;
    void adoptGrowth() override;
    unsigned sweep() override;
    CommitResult commit(const std::vector<const std::vector<Write>*>& writes) override;
    std::size_t keyLimit() const override;
    void space(StoreSpace& out) override;
    CommitResult copyTo(const std::string& file, bool compact) override;
    ClockPage& clockPage() override { return page_.clock(); }
    const std::string& folder() const override { return folder_.path(); }

    bool isForeignProcess() const { return process_ != getpid(); }
    MDB_env* environment() const { return environment_; }
    MDB_dbi database() const { return database_; }
    /// Logs that reading failed: each cause at once, and again at most once a second, with how often it came
    /// meanwhile. A walk over a broken store fails at every step.
    void tellReadFault(int error);

  private:
    explicit LmdbEngine(const StoreOptions& options) : options_(options) {}
    bool start(const std::string& path, std::string& reason);
    bool openEnvironment(std::string& reason);
    int tryOpen(std::size_t mapBytes);
    bool loadClock(std::string& reason);
    void checkEnd() const;
    bool isRemoved() const;
    void reopen();
    template <typename Action>
    void stopReaders(Action action);

    bool lockWriter(std::string& reason);
    int write(const std::vector<const std::vector<Write>*>& writes);
    int putAll(MDB_txn* transaction, const std::vector<const std::vector<Write>*>& writes,
               const std::string& mark);
    int recover(int error);
    std::string sentence(const char* what, int error) const;

    const pid_t process_ = getpid();
    StoreOptions options_;
    StoreFolder folder_;
    SharedPage page_;
    MDB_env* environment_ = nullptr;
    MDB_dbi database_ = 0;
    // Of the environment that was open last.
    std::size_t mapBytes_ = 0;
    // One transaction of this process at a time; also kept while the map moves.
    std::mutex writing_;
    // Shared by those who read without a cursor of `cursors_`, alone while the map moves.
    std::shared_mutex mapping_;
    std::mutex cursorsMutex_;
    std::vector<std::shared_ptr<LmdbCursor>> cursors_;
    std::mutex faultsMutex_;
    int toldFault_ = 0;
    std::uint64_t untoldFaults_ = 0;
    std::chrono::steady_clock::time_point toldAt_;
};

}  // namespace qel::storage
