#include "rpc/WorkerPool.h"

#include <utility>

namespace qel::rpc {

WorkerPool::WorkerPool(unsigned threads, std::size_t waiting) : limit_(waiting) {
    for (unsigned i = 0; i < (threads == 0 ? 1 : threads); ++i)
        threads_.emplace_back([this] { work(); });
}

WorkerPool::~WorkerPool() {
    stop(false);
}

bool WorkerPool::submit(Task task) {
    {
        const std::lock_guard lock(mutex_);
        if (stopped_ || tasks_.size() >= limit_)
            return false;
        tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
    return true;
}

void WorkerPool::submitAlways(Task task) {
    {
        std::unique_lock lock(mutex_);
        if (stopped_) {
            lock.unlock();
            task();
            return;
        }
        tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
}

void WorkerPool::stop(bool finish) {
    // cppcheck-suppress variableScope ; the tasks end outside of the lock
    std::deque<Task> dropped;
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
        if (!finish)
            dropped.swap(tasks_);
    }
    changed_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
    threads_.clear();
}

std::size_t WorkerPool::waiting() const {
    const std::lock_guard lock(mutex_);
    return tasks_.size();
}

void WorkerPool::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopped_ || !tasks_.empty(); });
        if (tasks_.empty())
            return;
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

}  // namespace qel::rpc
