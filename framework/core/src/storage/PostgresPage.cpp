#include "storage/PostgresPage.h"

#include <algorithm>

namespace qel::storage {

void PostgresPage::clear() {
    bytes_.clear();
    rows_.clear();
    written_.clear();
    known_ = false;
}

void PostgresPage::noteWritten(Bytes key) {
    if (knows(key))
        written_.emplace(key);
}

void PostgresPage::add(Bytes key, Bytes value) {
    rows_.push_back({bytes_.size(), key.size(), value.size()});
    bytes_.append(key);
    bytes_.append(value);
}

void PostgresPage::endForward(Bytes from, bool reachedEnd) {
    low_.assign(from);
    endless_ = reachedEnd;
    high_.clear();
    // The least key behind the last one is the same with a zero byte more.
    if (!reachedEnd)
        high_.assign(key(size() - 1)).push_back('\0');
    known_ = true;
}

void PostgresPage::endBackward(Bytes before, bool reachedStart) {
    high_.assign(before);
    endless_ = false;
    std::reverse(rows_.begin(), rows_.end());
    low_.clear();
    if (!reachedStart)
        low_.assign(key(0));
    known_ = true;
}

std::size_t PostgresPage::lowerBound(Bytes wanted) const {
    const auto at = std::lower_bound(rows_.begin(), rows_.end(), wanted, [this](const Row& row, Bytes other) {
        return Bytes(bytes_.data() + row.at, row.keySize) < other;
    });
    return static_cast<std::size_t>(at - rows_.begin());
}

}  // namespace qel::storage
