#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "qelCore/Export.h"
#include "qelCore/RpcContext.h"
#include "qelCore/String.h"
#include "qelCore/Vector.h"

namespace qel {

/// The remote calls that a program offers, by name. Calls are added while the program starts, by one thread;
/// looked up and described from any thread, at any time.
class QELCORE_EXPORT RpcProvider {
  public:
    using Handler = std::function<void(const RpcContext&)>;

    struct Call {
        String group;
        String name;
        String signature;
        String description;
        Handler handler;
    };

    RpcProvider();
    ~RpcProvider();
    RpcProvider(const RpcProvider&) = delete;
    RpcProvider& operator=(const RpcProvider&) = delete;

    /// The group of the calls that are added next; set directly, and to null for none. Not copied before a
    /// call is added, so a literal or a text that lasts until then.
    const char* groupName = nullptr;

    /// Offers a call under `name` in the current group. The texts are copied. A call of that name that was
    /// there before is replaced.
    void addRPC(const char* name, Handler&& handler, const char* signature, const char* description);

    /// The call of that name, or null. It stays valid for as long as it is held, also when it is replaced
    /// meanwhile.
    std::shared_ptr<const Call> find(const char* name) const;

    /// All calls, ordered by name.
    Vector<std::shared_ptr<const Call>> getCalls() const;

  private:
    mutable std::mutex mutex_;
    std::map<String, std::shared_ptr<const Call>> calls_;
};

}  // namespace qel
