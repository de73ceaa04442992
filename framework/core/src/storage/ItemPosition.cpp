#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

void reportNoStore(const char* what, const Item& key) {
    logging::MessageStream(3, 2) << "no store is open to " << what << " " << key.asString();
}

}  // namespace

bool Item::child(Item& out) const {
    ItemStore* const store = ItemStore::current();
    return store != nullptr && store->child(*this, out);
}

bool Item::next() {
    ItemStore* const store = ItemStore::current();
    return store != nullptr && store->next(*this);
}

bool Item::next(ConstByteSpan& value) {
    ItemStore* const store = ItemStore::current();
    return store != nullptr && store->next(*this, value);
}

bool Item::prev() {
    ItemStore* const store = ItemStore::current();
    return store != nullptr && store->prev(*this);
}

ConstByteSpan Item::fetch() const {
    ItemStore* const store = ItemStore::current();
    return store == nullptr ? ConstByteSpan() : store->fetch(*this);
}

void Item::store(const Item& value) const {
    if (ItemStore* const store = ItemStore::current())
        store->store(*this, value.bytes());
    else
        reportNoStore("write", *this);
}

void Item::remove() const {
    if (ItemStore* const store = ItemStore::current())
        store->remove(*this);
    else
        reportNoStore("remove", *this);
}

}  // namespace qel
