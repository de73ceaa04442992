#include "store/RecordGuard.h"

#include <utility>

#include "auditing/AuditAside.h"
#include "qelCore/String.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

RecordGuard::RecordGuard(Item log, Count count) : log_(std::move(log)), count_(std::move(count)) {}

OverwriteGuard::Entries RecordGuard::keep(const Item& key, ConstByteSpan older) {
    return AuditAside::entriesFor(AsideReason::overwritten, log_, key, older);
}

void RecordGuard::replaced(const Item& key) {
    logging::MessageStream(2, 2) << "record overwritten with other content, the older one is kept aside: "
                                 << key.asString();
    if (count_)
        count_(Met::other);
}

void RecordGuard::repeated(const Item&) {
    if (count_)
        count_(Met::same);
}

}  // namespace qel
