#include "wire/FrameReader.h"

#include <algorithm>

namespace qel {
namespace {

// What a connection that waits between frames may keep; more is given back.
constexpr std::size_t keptCapacity = 1024;

std::size_t totalOf(const unsigned char* start) {
    return (std::size_t{start[0]} << 24 | std::size_t{start[1]} << 16 | std::size_t{start[2]} << 8 |
            start[3]) +
           frameLengthBytes;
}

ConstByteSpan payloadOf(const unsigned char* frame, std::size_t total) {
    return {frame + frameHeaderBytes, total - frameHeaderBytes};
}

}  // namespace

bool FrameReader::checkLength(std::size_t total) {
    if (total < frameHeaderBytes) {
        error_ = "a frame of length 0 arrived; its kind is missing";
        return false;
    }
    if (total > largestFrame_) {
        error_ = "a frame of " + std::to_string(total) + " bytes was announced; at most " +
                 std::to_string(largestFrame_) + " are accepted";
        return false;
    }
    return true;
}

bool FrameReader::feed(ConstByteSpan bytes, Sink& sink) {
    if (!error_.empty())
        return false;
    while (!partial_.empty() && !bytes.empty())
        if (!completePartial(bytes, sink))
            return false;
    return readFrames(bytes, sink);
}

bool FrameReader::readFrames(ConstByteSpan& bytes, Sink& sink) {
    while (bytes.size() >= frameLengthBytes) {
        const std::size_t total = totalOf(bytes.data());
        if (!checkLength(total))
            return false;
        if (bytes.size() < total)
            break;
        const unsigned char* frame = bytes.data();
        bytes = ConstByteSpan(frame + total, bytes.size() - total);
        if (!sink.frameReceived(static_cast<FrameKind>(frame[frameLengthBytes]), payloadOf(frame, total)))
            return false;
    }
    keep(bytes);
    return true;
}

void FrameReader::keep(ConstByteSpan bytes) {
    partial_.append(bytes.view());
}

bool FrameReader::completePartial(ConstByteSpan& bytes, Sink& sink) {
    const auto take = [&](std::size_t wanted) {
        const std::size_t count = std::min(wanted - partial_.size(), bytes.size());
        keep(ConstByteSpan(bytes.data(), count));
        bytes = ConstByteSpan(bytes.data() + count, bytes.size() - count);
        return partial_.size() == wanted;
    };
    if (partial_.size() < frameLengthBytes && !take(frameLengthBytes))
        return true;
    const std::size_t total = totalOf(reinterpret_cast<const unsigned char*>(partial_.data()));
    if (!checkLength(total))
        return false;
    if (!take(total))
        return true;
    std::string whole;
    whole.swap(partial_);
    const auto* frame = reinterpret_cast<const unsigned char*>(whole.data());
    const bool goOn =
        sink.frameReceived(static_cast<FrameKind>(frame[frameLengthBytes]), payloadOf(frame, total));
    if (whole.capacity() <= keptCapacity) {
        whole.clear();
        partial_.swap(whole);
    }
    return goOn;
}

}  // namespace qel
