#include "qelNet/Service.h"

#include <utility>

namespace qel {

Service::SessionFactoryBase::SessionFactoryBase() = default;
Service::SessionFactoryBase::~SessionFactoryBase() = default;

Service::Service(const char* name) : name_(name ? name : "") {}

Service::Service(const Service& other) : Object(other), name_(other.name_), factories_(other.factories_) {
    for (const auto& [type, factory] : factories_)
        factory->increaseReferenceCount();
}

Service::Service(Service&& other) noexcept
    : name_(std::move(other.name_)), factories_(std::exchange(other.factories_, {})) {}

Service& Service::operator=(const Service& other) {
    for (const auto& [type, factory] : other.factories_)
        factory->increaseReferenceCount();
    SessionFactories factories = other.factories_;
    releaseFactories();
    factories_ = std::move(factories);
    name_ = other.name_;
    return *this;
}

Service& Service::operator=(Service&& other) noexcept {
    if (this != &other) {
        releaseFactories();
        factories_ = std::exchange(other.factories_, {});
        name_ = std::move(other.name_);
    }
    return *this;
}

Service::~Service() {
    releaseFactories();
}

void Service::releaseFactories() {
    for (const auto& [type, factory] : std::exchange(factories_, {}))
        factory->decreaseReferenceCount();
}

bool Service::packetReceived(Peer*, Packet*) {
    return false;
}

Session* Service::createSession(short type) {
    const auto found = factories_.find(type);
    return found == factories_.end() ? nullptr : found->second->createSession();
}

void Service::tick() {}

void Service::report(ReportGenerator*) {}

void Service::registerSessionFactory(short type, SessionFactoryBase* factory) {
    if (factory)
        factory->increaseReferenceCount();
    const auto known = factories_.find(type);
    if (known != factories_.end()) {
        known->second->decreaseReferenceCount();
        factories_.erase(known);
    }
    if (factory)
        factories_.emplace(type, factory);
}

}  // namespace qel
