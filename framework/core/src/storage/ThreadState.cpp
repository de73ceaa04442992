#include "storage/ThreadState.h"

#include <atomic>
#include <mutex>

namespace qel::storage {

thread_local constinit std::uint64_t lastStore = 0;
thread_local constinit ThreadState* lastState = nullptr;

namespace {

struct Place {
    std::uint64_t store;
    std::unique_ptr<ThreadState> state;
};

std::vector<Place>& places() {
    struct Places {
        std::vector<Place> all;
        ~Places() { lastStore = 0; }
    };
    thread_local Places mine;
    return mine.all;
}

bool isOver(const Place& place) {
    if (place.state->cursor == nullptr)
        return false;
    const std::lock_guard guard(place.state->cursor->lock);
    return place.state->cursor->closed;
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

namespace {

ThreadState& remember(std::uint64_t store, ThreadState& state) {
    lastStore = store;
    lastState = &state;
    return state;
}

}  // namespace

ThreadState& findThreadState(std::uint64_t store) {
    std::vector<Place>& all = places();
    for (Place& place : all)
        if (place.store == store)
            return remember(store, *place.state);
    std::erase_if(all, isOver);
    all.push_back({store, std::make_unique<ThreadState>()});
    return remember(store, *all.back().state);
}

}  // namespace qel::storage
