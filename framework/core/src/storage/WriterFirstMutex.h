#pragma once

#include <pthread.h>

namespace qel::storage {

/// A shared mutex in which a waiting writer comes before readers that arrive later. The standard one of this platform
/// lets readers through as long as one of them is inside, so that two threads that walk a log would keep all others from
/// writing. No thread may hold it shared twice. Locked through std::shared_lock, std::unique_lock and std::lock_guard.
class WriterFirstMutex {
  public:
    WriterFirstMutex() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock_, &attributes);
        pthread_rwlockattr_destroy(&attributes);
    }
    ~WriterFirstMutex() { pthread_rwlock_destroy(&lock_); }
    WriterFirstMutex(const WriterFirstMutex&) = delete;
    WriterFirstMutex& operator=(const WriterFirstMutex&) = delete;

    void lock() { pthread_rwlock_wrlock(&lock_); }
    void unlock() { pthread_rwlock_unlock(&lock_); }
    void lock_shared() { pthread_rwlock_rdlock(&lock_); }
    void unlock_shared() { pthread_rwlock_unlock(&lock_); }

  private:
    pthread_rwlock_t lock_;
};

}  // namespace qel::storage
