#pragma once

#include <optional>

#include "qelCore/ItemStore.h"
#include "session/Connection.h"

namespace qel {

class Connection::Scope {
  public:
    explicit Scope(Connection& connection)
        : connection_(connection), outermost_(connection.scope_ == nullptr) {
        if (!outermost_)
            return;
        connection_.scope_ = this;
        number_ = ++connection_.lastBatch_;
        batch_.emplace(connection_.store());
    }

    // A callback or a commit that throws ends the process: nobody is left to whom it could be told.
    ~Scope() {  // NOLINT(bugprone-exception-escape)
        if (!outermost_)
            return;
        connection_.scope_ = nullptr;
        connection_.submit(*batch_, number_, holding_, received_);
        batch_.reset();
        connection_.afterCallback();
    }

    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    std::uint64_t number() const { return number_; }
    /// Something stays behind this batch.
    void setHolding() { holding_ = true; }
    void addReceived(std::size_t bytes) { received_ += bytes; }

  private:
    Connection& connection_;
    bool outermost_;
    bool holding_ = false;
    std::uint64_t number_ = 0;
    std::size_t received_ = 0;
    std::optional<WriteBatch> batch_;
};

}  // namespace qel
