#pragma once

#include <memory>
#include <string>

#include "qelCore/ItemStore.h"

namespace qel::programs {

/// Opens a store by URL, its path relative to the current folder; it must exist. Throws Failure: 64 for something that is
/// no store URL, 66 missing, 69 a database that does not answer, 77 not permitted.
std::unique_ptr<ItemStore> openStore(const std::string& url, bool readOnly);

/// Whether that is why a store could not be opened: its database does not answer, or not to us.
bool outOfReach(const std::string& reason);

/// The folder of an `lmdb:PATH` URL; throws Failure(64) for any other.
std::string storeFolder(const std::string& url);

/// A store that a command looks at by URL, its logs by the names that the daemon wrote into it. The process's current
/// store while this object lives. Used by one thread.
class CentralStore {
  public:
    /// As `openStore`.
    explicit CentralStore(const std::string& url, bool readOnly = false);
    ~CentralStore();
    CentralStore(const CentralStore&) = delete;
    CentralStore& operator=(const CentralStore&) = delete;

    ItemStore& store() { return *store_; }

    /// The central log of that name; throws Failure(78) when the store knows none, or only a queue.
    StoreLog centralLog(const std::string& name);

    /// Whether an audit trail is kept here, so that reading leaves a trace in it; a workstation's queue has none.
    bool keepsTrail();
    /// Throws Failure(77) when nothing can be written, so that a use that would leave no trace does not begin.
    void requireTrace();
    /// Leaves "AuditLogUsed" [call, log, start, end, rows, bytes] in the audit trail, in the name of the operating
    /// system's user at this machine (or their pseudonym), and waits until it is durable. Throws Failure(74).
    void leaveTrace(const std::string& call, const std::string& log, long long start, long long end,
                    std::uint64_t rows, std::uint64_t bytes);

  private:
    std::unique_ptr<ItemStore> store_;
};

}  // namespace qel::programs
