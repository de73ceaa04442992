#pragma once

#include "auditing/Export.h"

namespace qel {
class PacketScheme;
}

/// The packets of the audit protocol, for modules that build or recognise them themselves. The schemes are
/// constructed when the library is loaded, before any other of its static objects, and live until it is
/// unloaded; they are read only and may be used from any thread. Type numbers, names and elements go over the
/// wire and are kept for good.
namespace qel::AuditProtocol::AuditSession {

/// The type of a session that carries these packets.
constexpr short sessionType = 3;

/// From client to service, type 301: "time" (64-bit integer, the event's time in the client's queue) and
/// "event" (an item, exactly as it is queued).
constexpr short auditDataType = 301;
QELAUDITING_EXPORT extern PacketScheme* AuditData;

/// From service to client, type 302: "time" of the AuditData whose event is now stored durably.
constexpr short auditDataAckType = 302;
QELAUDITING_EXPORT extern PacketScheme* AuditDataAck;

}  // namespace qel::AuditProtocol::AuditSession
