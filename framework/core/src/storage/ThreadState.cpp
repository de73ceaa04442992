#include "storage/ThreadState.h"

#include <atomic>
#include <mutex>

namespace qel::storage {

namespace {

struct Place {
    std::uint64_t store;
    std::unique_ptr<ThreadState> state;
};

struct Places {
    std::uint64_t lastStore = 0;
    ThreadState* lastState = nullptr;
    std::vector<Place> all;
};

Places& places() {
    thread_local Places mine;
    return mine;
}

bool isOver(const Place& place) {
    return place.state->cursor != nullptr && place.state->cursor->closed;
}

}  // namespace

ThreadState::~ThreadState() {
    if (cursor == nullptr)
        return;
    const std::lock_guard guard(cursor->lock);
    cursor->retire();
}

std::uint64_t nextStoreNumber() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

ThreadState& threadState(std::uint64_t store) {
    Places& mine = places();
    if (mine.lastStore == store)
        return *mine.lastState;
    for (Place& place : mine.all) {
        if (place.store == store) {
            mine.lastStore = store;
            mine.lastState = place.state.get();
            return *place.state;
        }
    }
    std::erase_if(mine.all, isOver);
    mine.all.push_back({store, std::make_unique<ThreadState>()});
    mine.lastStore = store;
    mine.lastState = mine.all.back().state.get();
    return *mine.lastState;
}

}  // namespace qel::storage
