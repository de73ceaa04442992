#pragma once

#include <string>

#include "wire/Frame.h"

namespace qel {

/// Cuts received bytes into frames. Frames that lie whole in the given bytes are handed on where they lie;
/// only the begin of a frame whose end is still to come is copied and kept. The length is judged before any
/// memory is taken for it, and memory grows with what has come, not with what is announced.
class FrameReader {
  public:
    class Sink {
      public:
        virtual ~Sink() = default;
        /// False stops the reading for good.
        virtual bool frameReceived(FrameKind kind, ConstByteSpan payload) = 0;
    };

    explicit FrameReader(std::uint32_t largestFrame) : largestFrame_(largestFrame) {}

    /// Bytes of a frame, header included, that are accepted from now on.
    void setLargestFrame(std::uint32_t bytes) { largestFrame_ = bytes; }

    /// Hands on all frames that are complete with these bytes. False when a frame is malformed, with a
    /// sentence in `getError`, or when the sink stopped, with an empty one.
    bool feed(ConstByteSpan bytes, Sink& sink);

    const std::string& getError() const { return error_; }
    /// True in the middle of a frame.
    bool isWaiting() const { return !partial_.empty(); }
    /// Bytes kept of an unfinished frame.
    std::size_t getKeptBytes() const { return partial_.capacity(); }

  private:
    bool readFrames(ConstByteSpan& bytes, Sink& sink);
    bool completePartial(ConstByteSpan& bytes, Sink& sink);
    bool checkLength(std::size_t total);
    void keep(ConstByteSpan bytes);

    std::uint32_t largestFrame_;
    std::string partial_;
    std::string error_;
};

}  // namespace qel
