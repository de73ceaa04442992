#include "auditing/AuditProtocol.h"

#include <typeinfo>

#include "qelCore/PacketScheme.h"

namespace qel::AuditProtocol::AuditSession {

namespace {

/// Before every other static object of this library, whose constructors may build packets.
constexpr int earliest = 101;

class AuditDataScheme : public PacketScheme {
  public:
    AuditDataScheme() : PacketScheme(auditDataType, "AuditProtocol", "AuditSession", "AuditData") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        Item("event", -1);
        NextVersion();
    }
};

class AuditDataAckScheme : public PacketScheme {
  public:
    AuditDataAckScheme() : PacketScheme(auditDataAckType, "AuditProtocol", "AuditSession", "AuditDataAck") {
        addElement("time", 1, 8, &typeid(long long), nullptr);
        NextVersion();
    }
};

AuditDataScheme dataScheme __attribute__((init_priority(earliest)));
AuditDataAckScheme dataAckScheme __attribute__((init_priority(earliest)));

}  // namespace

constinit PacketScheme* AuditData = &dataScheme;
constinit PacketScheme* AuditDataAck = &dataAckScheme;

}  // namespace qel::AuditProtocol::AuditSession
