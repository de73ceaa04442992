#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace qel {

/// The output of one session: whole frames that may leave, and frames that stay behind a commit.
struct OutputLane {
    struct Held {
        std::uint64_t batch;
        std::string frames;
    };

    std::string ready;
    std::size_t taken = 0;  ///< bytes at the begin of `ready` that have left
    std::deque<Held> held;
    std::size_t heldBytes = 0;
    bool queued = false;        ///< stands in the queue's turn list
    bool wantsDrained = false;  ///< somebody was told to wait

    std::size_t waitingBytes() const { return ready.size() - taken + heldBytes; }
};

/// What waits to be written on one connection. Frames of the connection itself go first, then sessions take turns, a
/// quantum of bytes each, so that a file under way does not keep acknowledgements waiting. Used on one strand.
class OutputQueue {
  public:
    using Lane = std::shared_ptr<OutputLane>;

    /// Where frames of the connection itself are appended.
    std::string& control() { return control_; }

    /// Moves frames to what may leave.
    void add(const Lane& lane, std::string_view frames);
    /// Keeps frames until `release` of that batch or a later one. Batches are given in ascending order.
    void hold(const Lane& lane, std::uint64_t batch, std::string_view frames);
    /// Lets go what stays behind batches up to and including `batch`.
    void release(std::uint64_t batch);
    /// Forgets a lane and all it holds.
    void drop(const Lane& lane);
    void clear();

    /// Appends up to about `most` bytes of whole frames, taking turns; a single larger frame is taken whole. False when
    /// nothing may leave.
    bool take(std::string& chunk, std::size_t most);

    bool isEmpty() const { return control_.empty() && turns_.empty(); }
    /// Bytes that may leave, plus those held back.
    std::size_t waitingBytes() const { return control_.size() + laneBytes_; }

  private:
    std::size_t takeFrom(OutputLane& lane, std::string& chunk, std::size_t most);

    std::string control_;
    std::deque<Lane> turns_;
    std::vector<Lane> holding_;
    std::size_t laneBytes_ = 0;
};

}  // namespace qel
