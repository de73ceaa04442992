#pragma once

#include <memory>
#include <string>

#include "auditing/AuditSequence.h"
#include "common/Configs.h"
#include "qelCore/ItemStore.h"
#include "qelNet/Credentials.h"

namespace qel::programs {

/// Largest event that a workstation takes into its queue, in bytes: what a service accepts by default, so that
/// nothing is queued that cannot be delivered.
constexpr std::size_t largestEvent = 60UL * 1024;

/// Tells identities apart in a store without writing their names there.
std::string identityFingerprint(const Credentials& credentials);

/// A workstation as its configuration describes it: identity, queues and the store that they lie in, which is the
/// process's current one while this object lives. Used by one thread, apart from the store itself.
class Workstation {
  public:
    enum class Use {
        look,  ///< the store must exist, and the identity is not needed
        work,  ///< the store is created when missing, and bound to the identity
    };

    /// Throws Failure: 66 no configuration or no store, 77 one that may not be read, 78 a configuration that
    /// cannot work (a queue that was filled by another identity included), 74 a store that cannot be opened.
    Workstation(const std::string& configFile, Use use);
    ~Workstation();
    Workstation(const Workstation&) = delete;
    Workstation& operator=(const Workstation&) = delete;

    const WorkstationConfig& config() const { return config_; }
    ItemStore& store() { return *store_; }
    const std::shared_ptr<Credentials>& credentials() const { return credentials_; }
    /// `log` is "interaction" or "audit".
    AuditSequence& sequence(const std::string& log) { return log == "audit" ? audit_ : interaction_; }
    const LogConfig& logConfig(const std::string& log) const {
        return log == "audit" ? config_.audit : config_.interaction;
    }

  private:
    void openStore(Use use);
    void bindIdentity();
    void rememberLogs();

    WorkstationConfig config_;
    std::shared_ptr<Credentials> credentials_;
    std::unique_ptr<ItemStore> store_;
    AuditSequence interaction_;
    AuditSequence audit_;
};

}  // namespace qel::programs
