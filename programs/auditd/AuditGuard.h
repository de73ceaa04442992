#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "qelCore/Item.h"
#include "qelNet/RpcService.h"

namespace qel::programs {

/// Who may read the logs by remote call, and the trace that each reading leaves in the audit trail. Any thread.
class AuditGuard : public RpcGuard {
  public:
    struct Logs {
        Item auditTrail;
        Item interactionLog;
        bool anonymousTrail = false;
    };

    AuditGuard(Logs logs, std::vector<std::string> auditors);

    /// Takes effect with the next call.
    void setAuditors(std::vector<std::string> auditors);

    bool mayRead(const std::string& user) const;

    bool permits(const RpcCaller& caller, const RpcProvider::Call& call) override;
    /// Refuses lines that are too many by counting them: cheaper than making them.
    std::string examine(const RpcCaller& caller, const RpcProvider::Call& call, const Item& arguments,
                        std::uint64_t mostRows) override;
    /// Stores "AuditLogUsed" [call, log, start, end, rows, bytes] in the name of the caller.
    void used(const RpcCaller& caller, const RpcProvider::Call& call, const Item& arguments,
              const RpcUse& use) override;

  private:
    const Logs logs_;
    mutable std::mutex mutex_;
    std::set<std::string> auditors_;
};

/// What a call asked for, as far as its arguments can be read.
struct AskedRange {
    std::string log;  ///< "audit", "interaction", "both", or empty
    long long start = 0;
    long long end = 0;
};
AskedRange readAskedRange(const std::string& call, const Item& arguments);

}  // namespace qel::programs
