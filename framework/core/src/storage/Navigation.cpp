#include "storage/Navigation.h"

#include <cstring>

#include "item/ItemCodec.h"

namespace qel {

using storage::Bytes;
using storage::StoreReader;

namespace {

// A key with one more byte, for a seek; longer keys than any store takes are cut, for nothing lies behind them.
class SeekKey {
  public:
    SeekKey(Bytes key, unsigned char last) : size_(std::min(key.size(), sizeof bytes_ - 1)) {
        key.copy(bytes_, size_);
        bytes_[size_++] = static_cast<char>(last);
    }
    Bytes bytes() const { return {bytes_, size_}; }

  private:
    char bytes_[512];
    std::size_t size_;
};

// To the first key that does not begin with this one. Out of line: its room on the stack would cost every step, and few
// steps need it.
[[gnu::noinline]] bool seekPastDescendants(StoreReader& reader, Bytes key) {
    while (!key.empty() && static_cast<unsigned char>(key.back()) == codec::aboveAll)
        key.remove_suffix(1);
    if (key.empty())
        return false;
    const auto last = static_cast<unsigned char>(static_cast<unsigned char>(key.back()) + 1);
    return reader.atLeast(SeekKey(key.substr(0, key.size() - 1), last).bytes());
}

bool isBelow(Bytes key, Bytes parent, std::size_t parentSize) {
    return key.size() > parentSize && codec::areEqual(key.data(), parent.data(), parentSize) &&
           static_cast<unsigned char>(key[parentSize]) >= codec::firstCode;
}

// Whether a key lies below another one, whose last element begins behind the parent. In a damaged store, bytes that are no
// element may follow a whole one: the walk passes over them too, or it would meet the same key for ever.
bool isDescendant(Bytes found, Bytes key, std::size_t parent) {
    if (found.size() <= key.size() || !codec::areEqual(found.data(), key.data(), key.size()))
        return false;
    const auto* const at = reinterpret_cast<const unsigned char*>(found.data());
    return at[key.size()] >= codec::firstCode ||
           codec::elementEnd(at + parent, at + found.size()) == at + key.size();
}

}  // namespace

// To the key's ancestor one element below the parent, which is the key itself unless it lies deeper. The position's own first
// bytes are the parent's already.
bool ItemNavigation::moveTo(Item& position, Bytes key, std::size_t parent) {
    const auto* const at = reinterpret_cast<const unsigned char*>(key.data()) + parent;
    const unsigned char* const end = at + (key.size() - parent);
    const unsigned char* const after = codec::elementEnd(at, end);
    const auto length = static_cast<std::size_t>((after == nullptr ? end : after) - at);
    position.size_ = static_cast<unsigned>(parent);
    std::memcpy(position.reserve(length), at, length);
    position.size_ += static_cast<unsigned>(length);
    position.last_ = static_cast<unsigned>(parent);
    return true;
}

bool ItemNavigation::child(StoreReader& reader, const Item& parent, Item& out) {
    const Bytes key = bytesOf(parent);
    const SeekKey bound(key, key.empty() ? codec::firstCode : codec::belowAll);
    const std::size_t size = key.size();
    if (!reader.atLeast(bound.bytes()) || !isBelow(reader.key(), key, size))
        return false;
    if (&out != &parent)
        out = parent;
    return moveTo(out, reader.key(), size);
}

bool ItemNavigation::next(StoreReader& reader, Item& position) {
    if (position.isEmpty())
        return false;
    const Bytes key = bytesOf(position);
    const std::size_t parent = position.lastElement();
    bool found = reader.behind(key);
    // Descendants lie between a key and its sibling.
    if (found && isDescendant(reader.key(), key, parent))
        found = seekPastDescendants(reader, key);
    return found && isBelow(reader.key(), key, parent) && moveTo(position, reader.key(), parent);
}

bool ItemNavigation::stepAhead(storage::EngineCursor& cursor, Item& position) {
    const auto* const ahead = cursor.ahead();
    const Bytes key = bytesOf(position);
    if (ahead == nullptr || !cursor.isAt(key))
        return false;
    const std::size_t parent = position.lastElement();
    const Bytes found = ahead->key;
    return isBelow(found, key, parent) && !isDescendant(found, key, parent) && cursor.step() &&
           moveTo(position, found, parent);
}

bool ItemNavigation::prev(StoreReader& reader, Item& position) {
    if (position.isEmpty())
        return false;
    const Bytes key = bytesOf(position);
    const std::size_t parent = position.lastElement();
    return reader.before(key) && isBelow(reader.key(), key, parent) && moveTo(position, reader.key(), parent);
}

bool ItemNavigation::nextKey(StoreReader& reader, Item& position) {
    static constexpr char first[] = {codec::firstCode};
    const bool found = position.isEmpty() ? reader.atLeast({first, 1}) : reader.behind(bytesOf(position));
    if (!found)
        return false;
    position.setPlain(reinterpret_cast<const unsigned char*>(reader.key().data()), reader.key().size());
    return true;
}

}  // namespace qel
