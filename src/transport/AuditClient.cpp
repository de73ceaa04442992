#include "auditing/AuditClient.h"

namespace qel {

AuditClient::AuditClient(Peer* peer, const char* name) : Client(peer, name) {}
AuditClient::AuditClient(const AuditClient& other) = default;
AuditClient::AuditClient(AuditClient&& other) noexcept = default;
AuditClient& AuditClient::operator=(const AuditClient& other) = default;
AuditClient& AuditClient::operator=(AuditClient&& other) noexcept = default;
AuditClient::~AuditClient() = default;

}  // namespace qel
