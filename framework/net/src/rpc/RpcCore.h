#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "qelCore/Export.h"
#include "qelNet/RpcService.h"
#include "rpc/CallFolders.h"
#include "rpc/WorkerPool.h"

namespace qel {

/// What all sessions and calls of one service share. Any thread.
class QEL_HIDDEN RpcService::Core {
  public:
    Core(const RpcProvider* callProvider, RpcGuard* callGuard, const RpcServiceOptions& callOptions,
         std::string& error);

    const RpcProvider* const provider;
    RpcGuard* const guard;
    const RpcServiceOptions options;
    rpc::CallFolders folders;
    /// Runs handlers, which may take minutes.
    rpc::WorkerPool handlers;
    /// Runs what is short: reading of files, events of calls, endings. Apart from the handlers, so that downloads go
    /// on while all of those are busy.
    rpc::WorkerPool events;

    struct Counters {
        std::atomic<std::uint64_t> calls{0};
        std::atomic<std::uint64_t> openCalls{0};
        std::atomic<std::uint64_t> notPermitted{0};
        std::atomic<std::uint64_t> notAnswered{0};
        std::atomic<std::uint64_t> tooLarge{0};
        std::atomic<std::uint64_t> fileBytes{0};
    } counters;
};

}  // namespace qel
