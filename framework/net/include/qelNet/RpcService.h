#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qelCore/Item.h"
#include "qelCore/RpcProvider.h"
#include "qelNet/Export.h"
#include "qelNet/Identity.h"
#include "qelNet/RpcProtocol.h"
#include "qelNet/Service.h"

namespace qel {

/// Who makes a remote call, by its authenticated certificate, and from where. A plain value.
struct QELNET_EXPORT RpcCaller {
    Identity identity;
    std::string address;  ///< "ADDRESS:PORT"
};

/// What a remote call that has ended gave away. A plain value.
struct QELNET_EXPORT RpcUse {
    /// Elements of the result, where one that is an array counts as many as it has; or, of transferred files,
    /// the line ends sent.
    std::uint64_t rows = 0;
    /// Encoded bytes of the result, or bytes of files sent, whether or not they have arrived.
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;  ///< files begun
    RpcError error = RpcError::none;
};

/// Decides who may call what, and learns what was given away. The host implements it; it outlives the
/// service. The operations are called from several threads at a time.
class QELNET_EXPORT RpcGuard {
  public:
    virtual ~RpcGuard() = default;

    /// Asked before anything of the call is looked at, on the caller's strand: it must be quick. False: the
    /// caller is told "not permitted", and a log line names user, device, address and call.
    virtual bool permits(const RpcCaller& caller, const RpcProvider::Call& call) = 0;

    /// Asked on a handler thread directly before the handler. A sentence refuses the call as one with a
    /// result of more than `mostRows`: cheaper than making the result first. The base lets all pass.
    virtual std::string examine(const RpcCaller& caller, const RpcProvider::Call& call, const Item& arguments,
                                std::uint64_t mostRows);

    /// Told once for each permitted call that is over, answered or not, before its answer leaves: what this
    /// stores is durable before the first byte of the answer (of a result or of the word that ends a
    /// download) is sent.
    virtual void used(const RpcCaller& caller, const RpcProvider::Call& call, const Item& arguments,
                      const RpcUse& use) = 0;
};

/// How an RpcService works.
struct QELNET_EXPORT RpcServiceOptions {
    /// Where files are prepared, each call's in a folder of its own (mode 0700) that is removed when the call
    /// ends. Made when missing; leftovers of an earlier process are removed at start. One process at a time.
    /// Empty: calls cannot transfer files.
    std::string directory;
    /// Threads that run handlers, and calls that may wait for one of them; more are told "busy".
    unsigned threads = 4;
    unsigned waitingCalls = 64;
    /// Calls that one connection may have open.
    unsigned callsPerConnection = 8;
    /// Seconds after which a call is ended whose handler has returned without finishing it and that has no
    /// file transfer making progress. A handler that still runs is waited for.
    unsigned callSeconds = 600;
    /// Seconds that prepared files wait for a client that takes nothing of them; 0: as `callSeconds`.
    unsigned keepSeconds = 0;
    /// Largest result, in rows as of RpcUse; a client may ask for a smaller limit.
    std::uint64_t rowsPerCall = 1000000;
};

/// Counters of a service since it was made, and what is open now.
struct QELNET_EXPORT RpcStatistics {
    std::uint64_t calls = 0;
    std::uint64_t openCalls = 0;
    std::uint64_t notPermitted = 0;
    std::uint64_t notAnswered = 0;  ///< ended because their handler left them unfinished
    std::uint64_t tooLarge = 0;     ///< refused for the size of their result
    std::uint64_t fileBytes = 0;    ///< read from files and sent
};

/// The remote calls of a provider, offered on the network in sessions of type `rpcSessionType`. Handlers run
/// on a few threads of the service's own, inside a write batch of the current store, and what they stored is
/// durable before their answer leaves. The host stops its network first, then destroys the service, then the
/// provider, the guard and the store.
class QELNET_EXPORT RpcService : public Service {
    QEL_CLASS(RpcService, Service)

    /// `provider` and `guard` are not owned; without a guard everybody may call everything. `error` gets a
    /// sentence when the directory cannot be used: files cannot be transferred then.
    RpcService(const char* name, const RpcProvider* provider, RpcGuard* guard,
               const RpcServiceOptions& options, std::string& error);
    ~RpcService() override;
    RpcService(const RpcService&) = delete;
    RpcService& operator=(const RpcService&) = delete;

    void report(ReportGenerator* generator) override;
    RpcStatistics getStatistics() const;

    /// Ends the threads after the handlers that run; calls that still wait are dropped. After the network has
    /// stopped; the destructor calls it.
    void stop();

    class Core;

  private:
    std::shared_ptr<Core> core_;
};

}  // namespace qel
