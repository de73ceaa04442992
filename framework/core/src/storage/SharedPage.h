#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace qel::storage {

/// State of the unique clock that all processes with the store open share. Times in microseconds.
struct ClockPage {
    static constexpr int leapCount = 8;
    static constexpr int skipCount = 8;

    pthread_mutex_t mutex;
    std::atomic<long long> last;
    // Durable: no time up to here is handed out again, whatever happens to this page.
    std::atomic<long long> committed;
    // Lower end of the nearest span to pass over that lies behind `last`.
    std::atomic<long long> nextSkip;
    // Guarded by `mutex`. Leaps of the clock: last time before, first after; newest last, zeros for none. Spans to pass
    // over, ends included.
    long long leaps[leapCount][2];
    long long skips[skipCount][2];
    // The present when the last mark was taken.
    std::atomic<long long> marked;
};

/// The small mapped file beside the data through which the processes of one machine agree on the unique clock and
/// on who writes. Its locks are robust: a killed holder's lock goes to the next. It holds nothing that a power cut
/// may not take: what must survive lies in the store.
class SharedPage {
  public:
    SharedPage() = default;
    ~SharedPage();
    SharedPage(const SharedPage&) = delete;
    SharedPage& operator=(const SharedPage&) = delete;

    /// Opens or makes the file. False with a sentence.
    bool open(const std::string& file, unsigned mode, std::string& reason);
    /// True for the process that found nobody else there: the clock must be set from the store.
    bool isFirst() const { return first_; }
    /// Ends the time in which only one process opens the store.
    void letOthersIn();
    ClockPage& clock() const;

    /// Waits for the right to write, at most `milliseconds`.
    bool lockWriter(unsigned milliseconds);
    void unlockWriter();
    /// The process that holds or last held it.
    int writerProcess() const;

    static bool lockRobust(pthread_mutex_t& mutex);

  private:
    struct Layout;
    bool map(const std::string& file, std::string& reason);
    void initialise();

    int fd_ = -1;
    int gate_ = -1;
    Layout* page_ = nullptr;
    bool first_ = false;
};

/// Holds a robust mutex of the page for a scope.
class RobustLock {
  public:
    explicit RobustLock(pthread_mutex_t& mutex) : mutex_(mutex), held_(SharedPage::lockRobust(mutex)) {}
    ~RobustLock() {
        if (held_)
            pthread_mutex_unlock(&mutex_);
    }
    RobustLock(const RobustLock&) = delete;
    RobustLock& operator=(const RobustLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
    bool held_;
};

}  // namespace qel::storage
