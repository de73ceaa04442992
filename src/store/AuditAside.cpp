#include "auditing/AuditAside.h"

#include <algorithm>
#include <limits>
#include <string>

#include "qelCore/ItemStore.h"
#include "qelCore/System.h"

namespace qel {

namespace {

// Names and shapes below lie on disk and are kept for good.

/// The side path of everything kept aside.
constexpr const char* sideName = "aside";

const char* nameOf(AsideReason reason) {
    switch (reason) {
        case AsideReason::damaged:
            return "damaged";
        case AsideReason::parked:
            return "parked";
        case AsideReason::overwritten:
            return "overwritten";
    }
    return "other";
}

/// Side path, reason, [path of the log]: the entries lie one element below, under [number, time]. The number counts
/// from 0, so the last key tells how many there are; the time keeps two writers that chose one number apart.
Item folder(AsideReason reason, const Item& log) {
    Item path = ItemStore::sidePath(sideName);
    path.addString(nameOf(reason));
    path.addItem(log);
    return path;
}

Item entryKey(const Item& path, long long number, long long time) {
    Item last;
    last.addInteger(number);
    last.addInteger(time);
    Item key(path);
    key.addItem(last);
    return key;
}

bool readEntryKey(const Item& position, long long& number, long long& time) {
    Item last;
    if (!position.trail().decodeElementAsItem(last))
        return false;
    Item::Iterator elements(last);
    return elements.decodeElementAsInteger(number) && elements.decodeElementAsInteger(time);
}

long long countIn(const Item& path) {
    Item position = entryKey(path, std::numeric_limits<long long>::max(), 0);
    long long number = 0;
    long long time = 0;
    return position.prev() && readEntryKey(position, number, time) ? number + 1 : 0;
}

/// What one stored piece of a value may hold: what the store takes, less the key that the first piece repeats.
std::size_t pieceSize(const Item& key) {
    constexpr std::size_t overhead = 64;
    constexpr std::size_t least = 1024;
    const ItemStore* store = ItemStore::current();
    const std::size_t most = store == nullptr ? least : store->valueLimit();
    return std::max(least, most - std::min(most, key.size() * 2 + overhead));
}

/// An entry: [key, bytes of the value]; bytes that did not fit lie in pieces one element below it, under 0, 1, ….
std::vector<std::pair<Item, Item>> encodeEntry(const Item& entry, const Item& key, std::string_view value) {
    const std::size_t size = pieceSize(key);
    std::vector<std::pair<Item, Item>> out;
    Item first;
    first.addItem(key);
    first.addBytes(value.data(), std::min(size, value.size()));
    out.emplace_back(entry, first);
    long long number = 0;
    for (std::size_t done = size; done < value.size(); done += size) {
        const std::string_view part = value.substr(done, size);
        Item piece;
        piece.addBytes(part.data(), part.size());
        Item pieceKey(entry);
        pieceKey.addInteger(number++);
        out.emplace_back(pieceKey, piece);
    }
    return out;
}

/// Appends the pieces below an entry.
void readPieces(const Item& entry, std::string& value) {
    Item piece;
    if (!entry.child(piece))
        return;
    do {
        Item bytes;
        if (Item::Iterator(piece.fetch()).decodeElementAsBytes(bytes))
            value += bytes.bytes().view();
    } while (piece.next());
}

void removeWithPieces(const Item& entry) {
    Item piece;
    for (bool more = entry.child(piece); more; more = piece.next())
        piece.remove();
    entry.remove();
}

bool readEntry(const Item& position, AsideEntry& entry) {
    long long number = 0;
    Item bytes;
    if (!readEntryKey(position, number, entry.keptAt))
        return false;
    Item::Iterator elements(position.fetch());
    if (!elements.decodeElementAsItem(entry.key) || !elements.decodeElementAsBytes(bytes))
        return false;
    entry.value = bytes.bytes().view();
    readPieces(position, entry.value);
    return true;
}

}  // namespace

std::vector<std::pair<Item, Item>> AuditAside::entriesFor(AsideReason reason, const Item& log,
                                                          const Item& key, ConstByteSpan value) {
    // Copied first: the bytes may be those of a fetch, which the look-up below makes invalid.
    const std::string kept(value.view());
    const Item path = folder(reason, log);
    const long long number = countIn(path);
    if (number >= limit && reason != AsideReason::parked)
        return {};
    return encodeEntry(entryKey(path, number, System::getUTCDateTimeUnique()), key, kept);
}

bool AuditAside::keep(AsideReason reason, const Item& log, const Item& key, ConstByteSpan value) {
    const auto entries = entriesFor(reason, log, key, value);
    ItemStore* const store = ItemStore::current();
    bool kept = store != nullptr && !entries.empty();
    for (const auto& [place, content] : entries)
        kept = kept && store->store(place, content.bytes());
    return kept;
}

long long AuditAside::returnParked(const Item& log) {
    ItemStore* const store = ItemStore::current();
    Item position = entryKey(folder(AsideReason::parked, log), std::numeric_limits<long long>::max(), 0);
    AsideEntry entry;
    long long returned = 0;
    // The last one first: the number of the last tells how many there are.
    while (store != nullptr && position.prev()) {
        entry.value.clear();
        if (!readEntry(position, entry))
            continue;
        const ConstByteSpan value{std::string_view(entry.value)};
        if (!store->accepts(entry.key, value.size()))
            break;
        WriteBatch both(store);
        // What was kept aside, but could not leave its queue, is still the event itself there.
        if (store->fetch(entry.key).isNull() && !store->store(entry.key, value))
            break;
        removeWithPieces(position);
        if (!both.commit())
            break;
        ++returned;
    }
    return returned;
}

long long AuditAside::count(AsideReason reason, const Item& log) {
    return countIn(folder(reason, log));
}

void AuditAside::walk(AsideReason reason, const Item& log,
                      const std::function<bool(const AsideEntry&)>& visit) {
    Item position;
    if (!folder(reason, log).child(position))
        return;
    do {
        AsideEntry entry;
        if (readEntry(position, entry) && !visit(entry))
            return;
    } while (position.next());
}

}  // namespace qel
