#pragma once

#include <cstdint>

#include "qelNet/Export.h"

namespace qel {

/// What one end of a connection accepts and how long it waits. A plain value; the first two are told to the
/// other end in the handshake, so that it never sends what cannot be accepted.
struct QELNET_EXPORT NetworkLimits {
    /// Bytes of one frame, its five bytes of header included. Checked before memory is taken.
    std::uint32_t frameBytes = 1024 * 1024;
    /// Bytes of one item that this end stores, told to the other end; 0 says nothing.
    std::uint32_t valueBytes = 60 * 1024;

    /// Authenticated connections, in all and from one address. Further ones are refused with a sentence.
    unsigned connections = 2048;
    unsigned connectionsPerAddress = 1024;
    /// Connections that have not authenticated yet. One more makes the oldest of them go, so that whoever
    /// only stops in the handshake cannot keep others out.
    unsigned handshakes = 256;
    /// Sessions that one connection may have open at a time.
    unsigned sessionsPerConnection = 64;

    /// Seconds from the accepted socket to the end of the handshake.
    unsigned handshakeSeconds = 10;
    /// Seconds without a byte from the other end after which the connection is closed; keep-alives are asked
    /// for after a third of it, so only a dead connection gets there.
    unsigned idleSeconds = 90;
    /// Seconds in which waiting output must make some progress.
    unsigned writeSeconds = 30;

    /// Output waiting on one connection from which on it cannot take packets: a sender is told to wait, and a
    /// receiver that does not read its answers is not read from. One burst can exceed it by its own answers.
    std::uint32_t outputBytes = 512 * 1024;
    /// Bytes handled in one burst at most, before the batch is committed and others have their turn.
    std::uint32_t burstBytes = 1024 * 1024;
    /// Received bytes on one connection whose commit is still awaited; beyond it the connection is not read.
    std::uint32_t uncommittedBytes = 8 * 1024 * 1024;
};

}  // namespace qel
