#pragma once

#include <lmdb.h>

#include <csetjmp>

namespace qel::storage {

/// The engine ends the process over some kinds of damaged pages instead of telling an error. What runs in `unlessDamaged` ends
/// with MDB_CORRUPTED then. Whatever the engine was working on is in an unknown state afterwards and fit for being given
/// up only: a reading transaction, or a writing one before its commit.
/// A guard belongs to the thread that runs it; guards may be nested.
class LmdbGuard {
  public:
    LmdbGuard() : outer_(innermost) { innermost = this; }
    ~LmdbGuard() { innermost = outer_; }
    LmdbGuard(const LmdbGuard&) = delete;
    LmdbGuard& operator=(const LmdbGuard&) = delete;

    /// Called when the engine is about to end the process. Returns only if nothing of this thread is guarded.
    static void leave();

    std::jmp_buf wayOut;

  private:
    // Where it lies is known when a library is loaded: reading takes it for every entry.
    [[gnu::tls_model("initial-exec")]] static thread_local LmdbGuard* innermost;

    LmdbGuard* const outer_;
};

/// `action` returns an error of the engine, and owns nothing that its end would have to give back.
template <typename Action>
[[gnu::noinline]] int unlessDamaged(const Action& action) {
    LmdbGuard guard;
    return setjmp(guard.wayOut) == 0 ? action() : MDB_CORRUPTED;
}

}  // namespace qel::storage
