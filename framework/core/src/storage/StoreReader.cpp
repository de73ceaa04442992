#include "storage/StoreReader.h"

#include <iterator>

namespace qel::storage {

bool StoreReader::refreshAgain(Engine& engine) {
    // More than one other process may grow the map at one time, but not for ever.
    for (int tries = 0; tries < 8 && !cursor_->closed; ++tries) {
        const Refreshed result = cursor_->refresh();
        if (result != Refreshed::grown)
            return result == Refreshed::ok;
        cursor_->lock.unlock();
        engine.adoptGrowth();
        cursor_->lock.lock();
    }
    ++engine.readFaults;
    return false;
}

void StoreReader::lockOverlay() {
    overlayLock_ = std::shared_lock(overlay_.mutex);
    pending_ = &overlay_.entries();
}

bool StoreReader::lockPending() {
    if (pending_ != nullptr)
        return false;
    cursor_->lock.unlock();
    lockOverlay();
    cursor_->lock.lock();
    ready_ = !cursor_->closed && (cursor_->refresh() == Refreshed::ok || refreshAgain(engine_));
    return true;
}

bool StoreReader::isInGap(Bytes key) const {
    const ThreadState::Gap& gap = state_.gap;
    return (!gap.hasLow || Bytes(gap.low) < key) && (!gap.hasHigh || key < Bytes(gap.high));
}

void StoreReader::findGap(Bytes key) {
    ThreadState::Gap& gap = state_.gap;
    if (!somePending_ || pending_ != nullptr || (gap.generation == generation_ && isInGap(key)))
        return;
    cursor_->lock.unlock();
    lockOverlay();
    const auto high = pending_->lower_bound(key);
    gap.hasHigh = high != pending_->end();
    gap.hasLow = high != pending_->begin();
    if (gap.hasHigh)
        gap.high = high->first;
    if (gap.hasLow)
        gap.low = std::prev(high)->first;
    gap.generation = generation_ = overlay_.generation();
    pending_ = nullptr;
    overlayLock_.unlock();
    cursor_->lock.lock();
    ready_ = !cursor_->closed && (cursor_->refresh() == Refreshed::ok || refreshAgain(engine_));
}

bool StoreReader::settle(bool result, Overlay::Map::const_iterator pending) {
    state_.nearPending = !result || (pending != pending_->end() && pending->first <= key_);
    return result;
}

bool StoreReader::found(Bytes key, Bytes value) {
    key_ = key;
    value_ = value;
    return true;
}

// Both sides in step, one comparison each: a queue that is being drained begins with hundreds of entries whose removal
// is still pending.
bool StoreReader::mergeForward(bool inEngine, Overlay::Map::const_iterator pending) {
    for (; pending != pending_->end(); ++pending) {
        const int order = inEngine ? cursor_->key().compare(pending->first) : 1;
        if (order < 0)
            break;
        if (!pending->second.removes)
            return found(pending->first, pending->second.value);
        if (order == 0)
            inEngine = cursor_->step();
    }
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::mergeBackward(bool inEngine, Overlay::Map::const_iterator pending) {
    while (pending != pending_->begin()) {
        --pending;
        const int order = inEngine ? cursor_->key().compare(pending->first) : -1;
        if (order > 0)
            break;
        if (!pending->second.removes)
            return found(pending->first, pending->second.value);
        if (order == 0)
            inEngine = cursor_->stepBack();
    }
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::engineAtLeast(Bytes key) {
    return ready_ && (cursor_->isAt(key) || cursor_->seek(key));
}

bool StoreReader::engineBehind(Bytes key) {
    if (!ready_)
        return false;
    // The usual case of a walk: the cursor stands where the last step left it.
    if (cursor_->isAt(key))
        return cursor_->step();
    return cursor_->seek(key) && (cursor_->key() != key || cursor_->step());
}

bool StoreReader::engineBefore(Bytes key) {
    return ready_ && (cursor_->isAt(key) ? cursor_->stepBack() : cursor_->seekBefore(key));
}

bool StoreReader::atLeast(Bytes key) {
    findGap(key);
    bool inEngine = engineAtLeast(key);
    if (!somePending_ || (pending_ == nullptr && inEngine && isInGap(key) && isInGap(cursor_->key())))
        return inEngine && found(cursor_->key(), cursor_->value());
    if (lockPending())
        inEngine = engineAtLeast(key);
    const auto pending = pending_->lower_bound(key);
    return settle(mergeForward(inEngine, pending), pending);
}

bool StoreReader::behind(Bytes key) {
    findGap(key);
    bool inEngine = engineBehind(key);
    if (!somePending_ || (pending_ == nullptr && inEngine && isInGap(key) && isInGap(cursor_->key())))
        return inEngine && found(cursor_->key(), cursor_->value());
    if (lockPending())
        inEngine = engineBehind(key);
    const auto pending = pending_->upper_bound(key);
    return settle(mergeForward(inEngine, pending), pending);
}

bool StoreReader::before(Bytes key) {
    findGap(key);
    bool inEngine = engineBefore(key);
    if (!somePending_ || (pending_ == nullptr && inEngine && isInGap(key) && isInGap(cursor_->key())))
        return inEngine && found(cursor_->key(), cursor_->value());
    if (lockPending())
        inEngine = engineBefore(key);
    // A walk back is rare: it looks each time.
    return mergeBackward(inEngine, pending_->lower_bound(key));
}

bool StoreReader::exactly(Bytes key) {
    findGap(key);
    if (somePending_ && (pending_ != nullptr || !isInGap(key))) {
        lockPending();
        const auto at = pending_->find(key);
        if (at != pending_->end())
            return !at->second.removes && found(at->first, at->second.value);
    }
    return ready_ && (cursor_->isAt(key) || cursor_->find(key)) && found(cursor_->key(), cursor_->value());
}

}  // namespace qel::storage
