#pragma once

#include <cstddef>
#include <string>

namespace qel {

/// A stream of bytes to the other end that never blocks. Used on its connection's executor only.
class Link {
  public:
    enum class State { done, wait, lost };
    struct Result {
        State state = State::wait;
        std::size_t bytes = 0;  ///< moved, when done
    };

    virtual ~Link() = default;
    virtual Result read(unsigned char* buffer, std::size_t size) = 0;
    /// After `wait` the same bytes must be offered again.
    virtual Result write(const char* data, std::size_t size) = 0;
    /// Asks for one call of the connection's `readable`, respectively `writable`, when it is worth trying again.
    virtual void waitReadable() = 0;
    virtual void waitWritable() = 0;
    /// Why the stream was lost, in one sentence.
    virtual std::string getFailure() const = 0;
    /// Ends the stream so that what was written still arrives. Nothing is called afterwards.
    virtual void close() = 0;
};

}  // namespace qel
