#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "qelCore/System.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// A path of one element.
inline Item path(const std::string& name) {
    Item made;
    made.addString(name);
    return made;
}

/// An event of strings.
template <class... Texts>
Item event(const Texts&... texts) {
    Item made;
    (made.addString(std::string_view(texts)), ...);
    return made;
}

inline Item centralKey(const Item& log, long long time, long long origin) {
    Item last;
    last.addInteger(time);
    last.addInteger(origin);
    Item key(log);
    key.addItem(last);
    return key;
}

inline Item queueKey(const Item& log, long long time) {
    Item key(log);
    key.addInteger(time);
    return key;
}

/// The nested items of an item.
inline std::vector<Item> items(const Item& item) {
    std::vector<Item> found;
    Item::Iterator elements(item);
    Item element;
    while (elements.decodeElementAsItem(element))
        found.push_back(element);
    return found;
}

/// The elements of an item as texts.
inline std::vector<std::string> texts(const Item& item) {
    std::vector<std::string> found;
    Item::Iterator elements(item);
    String text;
    while (elements.convertAsString(text))
        found.push_back(text.str());
    return found;
}

/// A real store in a temporary folder, current while the object lives. Its writes are deferred, so that a test that
/// fills it waits for the disk once, in flush().
class AuditStore {
  public:
    AuditStore() {
        StoreOptions options;
        options.durability = Durability::deferred;
        open(options);
    }
    ~AuditStore() { close(); }

    void reopen() {
        close();
        open(StoreOptions());
    }

    void put(const Item& log, long long time, const Item& value) { queueKey(log, time).store(value); }
    void putCentral(const Item& log, long long time, long long origin, const Item& value) {
        centralKey(log, time, origin).store(value);
    }
    Item get(const Item& log, long long time) const { return value(queueKey(log, time)); }

    static Item value(const Item& key) {
        Item found;
        found.setPlain(key.fetch());
        return found;
    }

    /// The times of a queue, in order.
    std::vector<long long> times(const Item& log) const {
        std::vector<long long> found;
        Item position;
        long long time = 0;
        for (bool more = log.child(position); more; more = position.next())
            if (position.trail().decodeElementAsInteger(time))
                found.push_back(time);
        return found;
    }

    /// The records of a central log, in order, each as [[time, origin], user, device, …].
    std::vector<Item> central(const Item& log) const {
        std::vector<Item> found;
        Item position;
        Item key;
        for (bool more = log.child(position); more; more = position.next()) {
            if (!position.trail().decodeElementAsItem(key))
                continue;
            Item line = position.trail();
            line.concatItem(value(position));
            found.push_back(line);
        }
        return found;
    }
    std::size_t centralCount(const Item& log) const { return central(log).size(); }

    /// No log at all; side paths do not count.
    bool isEmpty() const {
        Item position;
        for (bool more = Item().child(position); more; more = position.next())
            if (!ItemStore::isSideKey(position))
                return false;
        return true;
    }

    void flush() {
        if (const CommitResult result = ItemStore::flush(); !result)
            throw std::runtime_error(result.reason);
    }
    ItemStore& store() { return *store_; }

  private:
    void open(const StoreOptions& options) {
        std::string reason;
        store_ = ItemStore::open("lmdb:" + (folder_ / "store"), options, reason);
        if (!store_)
            throw std::runtime_error(reason);
        ItemStore::setCurrent(store_.get());
    }
    void close() {
        ItemStore::setCurrent(nullptr);
        store_.reset();
    }

    TemporaryFolder folder_;
    std::unique_ptr<ItemStore> store_;
};

}  // namespace qel::test
