#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "qelCore/ConstByteSpan.h"

namespace qel {

/// What stands on the wire once TLS is up: a sequence of frames, each four bytes of length (big-endian,
/// counting all that follows), one byte of kind, and the payload. The numbers are stored nowhere but spoken
/// by every release: they are never given another meaning.
enum class FrameKind : unsigned char {
    hello = 1,         ///< client, first frame: magic, versions, limits
    welcome = 2,       ///< service, first frame: version, limits
    open = 3,          ///< client: channel, session type, service name
    opened = 4,        ///< service: channel
    packet = 5,        ///< channel, encoded packet
    closeChannel = 6,  ///< channel, reason: refuses or ends a session
    close = 7,         ///< reason: ends the connection
    ping = 8,          ///< any bytes, given back in the pong
    pong = 9,
};

constexpr std::size_t frameLengthBytes = 4;
constexpr std::size_t frameHeaderBytes = 5;
/// Before the handshake is done nobody may make the other end take more memory than this.
constexpr std::uint32_t largestHandshakeFrame = 4096;
constexpr std::size_t longestReason = 1024;
constexpr std::size_t longestServiceName = 255;

/// Appends numbers big-endian, as all numbers of the protocol are.
class FrameWriter {
  public:
    /// Begins a frame at the end of `out`; `finish` fills its length in.
    FrameWriter(std::string& out, FrameKind kind);
    FrameWriter& u16(std::uint16_t value);
    FrameWriter& u32(std::uint32_t value);
    FrameWriter& bytes(std::string_view value);
    /// Bytes that others appended to the same string count as payload too.
    void finish();

  private:
    std::string& out_;
    std::size_t start_;
};

/// Reads numbers from a payload; after the first missing byte everything reads as zero and `ok` is false.
class PayloadReader {
  public:
    explicit PayloadReader(ConstByteSpan payload) : rest_(payload) {}
    std::uint16_t u16();
    std::uint32_t u32();
    ConstByteSpan bytes(std::size_t count);
    ConstByteSpan rest() const { return rest_; }
    bool ok() const { return ok_; }

  private:
    ConstByteSpan rest_;
    bool ok_ = true;
};

/// A reason as it goes out or came in: cut at `longestReason` bytes, at the begin of a character.
std::string_view limitReason(std::string_view reason);

}  // namespace qel
