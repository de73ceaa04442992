#include "session/OutputQueue.h"

#include <algorithm>

#include "wire/Frame.h"

namespace qel {
namespace {

// What one session sends before the next has its turn: a burst of acknowledgements or one piece of a file.
constexpr std::size_t quantum = 8UL * 1024;
// An idle session keeps no more than this of its last burst.
constexpr std::size_t keptCapacity = 16UL * 1024;

std::size_t frameAt(const std::string& frames, std::size_t offset) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < frameLengthBytes; ++i)
        length = length << 8 | static_cast<unsigned char>(frames[offset + i]);
    return length + frameLengthBytes;
}

}  // namespace

void OutputQueue::add(const Lane& lane, std::string_view frames) {
    if (frames.empty())
        return;
    lane->ready += frames;
    laneBytes_ += frames.size();
    if (!lane->queued) {
        lane->queued = true;
        turns_.push_back(lane);
    }
}

void OutputQueue::hold(const Lane& lane, std::uint64_t batch, std::string_view frames) {
    if (lane->held.empty())
        holding_.push_back(lane);
    if (lane->held.empty() || lane->held.back().batch != batch)
        lane->held.push_back({batch, {}});
    lane->held.back().frames += frames;
    lane->heldBytes += frames.size();
    laneBytes_ += frames.size();
}

void OutputQueue::release(std::uint64_t batch) {
    for (const Lane& lane : holding_) {
        while (!lane->held.empty() && lane->held.front().batch <= batch) {
            const std::string frames = std::move(lane->held.front().frames);
            lane->held.pop_front();
            lane->heldBytes -= frames.size();
            laneBytes_ -= frames.size();
            add(lane, frames);
        }
    }
    std::erase_if(holding_, [](const Lane& lane) { return lane->held.empty(); });
}

void OutputQueue::drop(const Lane& lane) {
    laneBytes_ -= lane->waitingBytes();
    lane->held.clear();
    lane->heldBytes = 0;
    lane->ready.clear();
    lane->taken = 0;
    lane->queued = false;
    std::erase(turns_, lane);
    std::erase(holding_, lane);
}

void OutputQueue::clear() {
    while (!turns_.empty())
        drop(Lane(turns_.front()));
    while (!holding_.empty())
        drop(Lane(holding_.front()));
    control_.clear();
}

std::size_t OutputQueue::takeFrom(OutputLane& lane, std::string& chunk, std::size_t most) {
    std::size_t end = lane.taken;
    do {
        end += frameAt(lane.ready, end);
    } while (end < lane.ready.size() && end + frameAt(lane.ready, end) - lane.taken <= most);
    const std::size_t count = end - lane.taken;
    chunk.append(lane.ready, lane.taken, count);
    lane.taken = end;
    laneBytes_ -= count;
    return count;
}

bool OutputQueue::take(std::string& chunk, std::size_t most) {
    if (!control_.empty()) {
        chunk += control_;
        control_.clear();
        control_.shrink_to_fit();
    }
    // With one session alone there is nobody to be fair to.
    const std::size_t share = turns_.size() > 1 ? quantum : most;
    while (!turns_.empty() && chunk.size() < most) {
        const Lane lane = turns_.front();
        const std::size_t next = frameAt(lane->ready, lane->taken);
        if (!chunk.empty() && chunk.size() + next > most)
            break;
        turns_.pop_front();
        takeFrom(*lane, chunk, std::min(share, most - std::min(most, chunk.size())));
        if (lane->taken < lane->ready.size()) {
            turns_.push_back(lane);
            continue;
        }
        lane->queued = false;
        lane->taken = 0;
        lane->ready.clear();
        if (lane->ready.capacity() > keptCapacity)
            lane->ready.shrink_to_fit();
    }
    return !chunk.empty();
}

}  // namespace qel
