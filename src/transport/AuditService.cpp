#include "auditing/AuditService.h"

#include <utility>

#include "auditing/AuditProtocol.h"
#include "qelCore/Ref.h"
#include "transport/AuditSession.h"

namespace qel {

AuditService::AuditService(const Item& path, const char* name, bool anonymous)
    : Service(name),
      path_(path),
      anonymous_(anonymous),
      statistics_(std::make_shared<AuditServiceStatistics>()) {
    const auto factory = makeRef<SessionFactory<AuditSession>>();
    registerSessionFactory(AuditProtocol::AuditSession::sessionType, factory.get());
}

AuditService::AuditService(const AuditService& other) = default;

// The statistics stay with both: sessions of the older object may still count there.
// Only the base's part of `other` is moved before its members are.
// NOLINTBEGIN(bugprone-use-after-move,performance-move-constructor-init)
AuditService::AuditService(AuditService&& other) noexcept
    : Service(std::move(other)),
      path_(std::move(other.path_)),
      anonymous_(other.anonymous_),
      listener_(std::move(other.listener_)),
      statistics_(other.statistics_) {}

AuditService& AuditService::operator=(const AuditService& other) = default;

AuditService& AuditService::operator=(AuditService&& other) noexcept {
    if (this == &other)
        return *this;
    Service::operator=(std::move(other));
    path_ = std::move(other.path_);
    anonymous_ = other.anonymous_;
    listener_ = std::move(other.listener_);
    statistics_ = other.statistics_;
    return *this;
}
// NOLINTEND(bugprone-use-after-move,performance-move-constructor-init)

AuditService::~AuditService() = default;

}  // namespace qel
