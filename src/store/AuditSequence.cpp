#include "auditing/AuditSequence.h"

#include <atomic>
#include <utility>

#include "qelCore/System.h"
#include "qelCore/logging/MessageStream.h"
#include "store/AuditRecord.h"

namespace qel {

// Constant-initialised, so that other static initialisers may already use Interaction().
constinit AuditSequence AuditSequence::default_;
constinit AuditSequence* AuditSequence::interaction_ = nullptr;

namespace {

#ifndef NDEBUG
constinit std::atomic_flag told = ATOMIC_FLAG_INIT;

/// A host that never registers its sequence records nothing, and nothing else would ever tell its developer.
void tellOnceThatNobodyListens() {
    if (!told.test_and_set())
        logging::MessageStream(1, 2)
            << "an event was appended to the interaction sequence before setInteraction, and dropped";
}
#else
void tellOnceThatNobodyListens() {}
#endif

}  // namespace

AuditSequence::AuditSequence(const AuditSequence& other) = default;
AuditSequence::AuditSequence(AuditSequence&& other) noexcept = default;
AuditSequence::~AuditSequence() = default;

AuditSequence& AuditSequence::operator=(const AuditSequence& other) {
    setPath(other.path_);
    return *this;
}

AuditSequence& AuditSequence::operator=(AuditSequence&& other) noexcept {
    if (this != &other)
        path_ = std::move(other.path_);
    return *this;
}

void AuditSequence::setPath(const Item& path) {
    if (&path != &path_)
        path_ = path;
}

void AuditSequence::clearPath() {
    path_.clear();
}

bool AuditSequence::isNullSequence() const {
    return path_.isEmpty();
}

void AuditSequence::append(const Item& event) const {
    if (isNullSequence()) {
        if (this == &default_)
            tellOnceThatNobodyListens();
        return;
    }
    record::queueKey(path_, System::getUTCDateTimeUnique()).store(event);
}

void AuditSequence::deleteEventsBefore(long long time) const {
    if (isNullSequence())
        return;
    Item key = record::queueKey(path_, time);
    for (int budget = deleteBudget; budget > 0 && key.prev(); --budget)
        key.remove();
}

AuditSequence& AuditSequence::Interaction() {
    return interaction_ != nullptr ? *interaction_ : default_;
}

void AuditSequence::setInteraction(AuditSequence& sequence) {
    interaction_ = &sequence;
}

const char* AuditSequence::getStaticClassName() {
    return "AuditSequence";
}

}  // namespace qel
