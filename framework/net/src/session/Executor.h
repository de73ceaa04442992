#pragma once

#include <functional>

namespace qel {

/// Where the callbacks of one connection run, one after the other: a strand of the I/O threads, or the test's own thread.
class Executor {
  public:
    virtual ~Executor() = default;
    /// Runs `function` later, in the order of posting. From any thread; dropped when the network has stopped.
    virtual void post(std::function<void()> function) = 0;
    /// True on the thread that runs a function of this executor now.
    virtual bool runsHere() const = 0;
};

}  // namespace qel
