// A module of a host whose static objects use the auditing library before anything else of the module has run; loaded
// and unloaded by LoadingTest.

#include "auditing/AuditProtocol.h"
#include "auditing/AuditSequence.h"
#include "qelCore/Item.h"
#include "qelCore/Packet.h"
#include "qelCore/Ref.h"

namespace {

struct Findings {
    Findings() {
        using namespace qel;
        using AuditProtocol::AuditSession::AuditData;
        Ref<Packet> packet = makeRef<Packet>(AuditData, short{-1});
        packet->singleSetInternal("time", 42LL);
        packetsWork = packet->fit(AuditData) && packet->singleGet<long long>("time") == 42;
        schemesAreListed = PacketScheme::find(301) == AuditData &&
                           PacketScheme::find(302) == AuditProtocol::AuditSession::AuditDataAck;
        Item event;
        event.addString("TooEarly");
        AuditSequence::Interaction().append(event);
        interactionIsNull = AuditSequence::Interaction().isNullSequence();
    }
    bool packetsWork = false;
    bool schemesAreListed = false;
    bool interactionIsNull = false;
};

// The earliest that a program may ask for.
Findings findings __attribute__((init_priority(101)));

}  // namespace

extern "C" __attribute__((visibility("default"))) bool hostFoundEverythingReady() {
    return findings.packetsWork && findings.schemesAreListed && findings.interactionIsNull;
}
