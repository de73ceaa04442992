#include "storage/StoreReader.h"

namespace qel::storage {

StoreReader::StoreReader(Engine& engine, const Overlay& overlay, ThreadState& state, bool& snapshotTaken) {
    if (state.cursor == nullptr)
        state.cursor = engine.makeCursor();
    cursor_ = state.cursor.get();
    // First the overlay, then the snapshot: what leaves the overlay meanwhile is in the snapshot.
    if (!overlay.isEmpty()) {
        overlayLock_ = std::shared_lock(overlay.mutex);
        pending_ = &overlay.entries();
    }
    ready_ = open(engine, snapshotTaken);
}

StoreReader::~StoreReader() {
    cursor_->lock.unlock();
}

bool StoreReader::open(Engine& engine, bool& snapshotTaken) {
    cursor_->lock.lock();
    // More than one other process may grow the map at one time, but not for ever.
    for (int tries = 0; tries < 8 && !cursor_->closed; ++tries) {
        const bool wasLive = cursor_->isLive();
        const Refreshed result = cursor_->refresh();
        snapshotTaken = !wasLive;
        if (result != Refreshed::grown)
            return result == Refreshed::ok;
        cursor_->lock.unlock();
        engine.adoptGrowth();
        cursor_->lock.lock();
    }
    return false;
}

bool StoreReader::found(Bytes key, Bytes value) {
    key_ = key;
    value_ = value;
    return true;
}

bool StoreReader::isRemoved(Bytes key) const {
    const auto at = pending_->find(key);
    return at != pending_->end() && at->second.removes;
}

bool StoreReader::mergeForward(bool inEngine, Overlay::Map::const_iterator pending) {
    while (inEngine && isRemoved(cursor_->key()))
        inEngine = cursor_->step();
    while (pending != pending_->end() && pending->second.removes)
        ++pending;
    if (pending != pending_->end() && (!inEngine || pending->first <= cursor_->key()))
        return found(pending->first, pending->second.value);
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::mergeBackward(bool inEngine, Overlay::Map::const_iterator pending) {
    while (inEngine && isRemoved(cursor_->key()))
        inEngine = cursor_->stepBack();
    while (pending != pending_->begin()) {
        --pending;
        if (pending->second.removes)
            continue;
        if (inEngine && cursor_->key() > pending->first)
            break;
        return found(pending->first, pending->second.value);
    }
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::atLeast(Bytes key) {
    const bool inEngine = cursor_->isAt(key) || cursor_->seek(key);
    if (pending_ != nullptr)
        return mergeForward(inEngine, pending_->lower_bound(key));
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::behind(Bytes key) {
    bool inEngine = false;
    // The usual case of a walk: the cursor stands where the last step left it.
    if (cursor_->isAt(key))
        inEngine = cursor_->step();
    else if (cursor_->seek(key))
        inEngine = cursor_->key() != key || cursor_->step();
    if (pending_ != nullptr)
        return mergeForward(inEngine, pending_->upper_bound(key));
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::before(Bytes key) {
    const bool inEngine = cursor_->isAt(key) ? cursor_->stepBack() : cursor_->seekBefore(key);
    if (pending_ != nullptr)
        return mergeBackward(inEngine, pending_->lower_bound(key));
    return inEngine && found(cursor_->key(), cursor_->value());
}

bool StoreReader::exactly(Bytes key) {
    if (pending_ != nullptr) {
        const auto at = pending_->find(key);
        if (at != pending_->end())
            return !at->second.removes && found(at->first, at->second.value);
    }
    if (!cursor_->isAt(key) && !(cursor_->seek(key) && cursor_->key() == key))
        return false;
    return found(cursor_->key(), cursor_->value());
}

}  // namespace qel::storage
