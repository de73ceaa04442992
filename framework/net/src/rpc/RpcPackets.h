#pragma once

#include "qelCore/Packet.h"
#include "qelCore/Ref.h"

namespace qel::rpc {

// The packets of a session of remote calls; docs/remote-calls.md gives every element. Numbers below 450 go to the
// service, the others to the client. They travel between programs of all versions, so they stay.
constexpr short callType = 401;
constexpr short creditType = 402;
constexpr short transferOutcomeType = 403;
constexpr short cancelType = 404;
constexpr short workingType = 451;
constexpr short transferBeginType = 452;
constexpr short fileDataType = 453;
constexpr short fileEndType = 454;
constexpr short resultDataType = 455;
constexpr short resultEndType = 456;
constexpr short errorType = 457;

/// call, window, rows; content [name, [argument, …]]
extern PacketScheme* const callScheme;
/// call, bytes
extern PacketScheme* const creditScheme;
/// call, code; content [status]
extern PacketScheme* const transferOutcomeScheme;
/// call
extern PacketScheme* const cancelScheme;
/// call, seconds, bytes
extern PacketScheme* const workingScheme;
/// call; content [[target, size], …]
extern PacketScheme* const transferBeginScheme;
/// call, file, offset; content [bytes]
extern PacketScheme* const fileDataScheme;
/// call, file, size; content [digest]
extern PacketScheme* const fileEndScheme;
/// call, offset; content [bytes]
extern PacketScheme* const resultDataScheme;
/// call, size, code; content [status]
extern PacketScheme* const resultEndScheme;
/// call, code; content [sentence]
extern PacketScheme* const errorScheme;

/// A packet under construction, or the reading of one that fits.
Ref<Packet> makePacket(PacketScheme* scheme, long long call);
Item contentOf(const Packet& packet);
/// The first element of the content as text; empty when it is none.
std::string textOf(const Packet& packet);
void setText(Packet& packet, std::string_view text);

/// Bytes of a data packet beside its data, doubled data excluded: what a chunk must leave free in a frame.
constexpr std::size_t packetOverhead = 512;

}  // namespace qel::rpc
