#include "storage/StoreReader.h"

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
    return false;
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
