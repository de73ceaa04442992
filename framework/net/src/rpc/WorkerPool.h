#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace qel::rpc {

/// A few threads and a bounded line of tasks. From any thread; a task must not throw.
class WorkerPool {
  public:
    using Task = std::function<void()>;

    WorkerPool(unsigned threads, std::size_t waiting);
    ~WorkerPool();

    /// False when too many tasks wait already, or after `stop`.
    bool submit(Task task);
    /// The same without a bound, for work that has been accepted already; after `stop` it runs here and now.
    void submitAlways(Task task);

    /// Ends the threads. Tasks that wait still run when `finish`, and are dropped otherwise.
    void stop(bool finish);

    std::size_t waiting() const;

  private:
    void work();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;
    std::vector<std::thread> threads_;
    const std::size_t limit_;
    bool stopped_ = false;
};

}  // namespace qel::rpc
