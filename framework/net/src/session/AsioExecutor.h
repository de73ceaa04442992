#pragma once

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <memory>

#include "session/Executor.h"

namespace qel {

/// A strand of the network's I/O threads. Keeps the context alive, so that a commit which completes after the network has
/// stopped still has where to post to; nothing runs there any more.
class AsioExecutor : public Executor {
  public:
    using Strand = asio::strand<asio::io_context::executor_type>;

    explicit AsioExecutor(std::shared_ptr<asio::io_context> context)
        : context_(std::move(context)), strand_(asio::make_strand(*context_)) {}

    void post(std::function<void()> function) override {
        // What nobody will run must not wait for ever in a context that it keeps alive itself.
        if (!context_->stopped())
            asio::post(strand_, std::move(function));
    }
    bool runsHere() const override { return strand_.running_in_this_thread(); }
    const Strand& strand() const { return strand_; }

  private:
    std::shared_ptr<asio::io_context> context_;
    Strand strand_;
};

}  // namespace qel
