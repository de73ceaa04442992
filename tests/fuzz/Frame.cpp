// Any bytes as they come from a connection, cut anywhere: the same frames come out whatever the pieces are, memory stays
// with what has come, and nothing is taken beyond the limit. The first two bytes choose limit and pieces.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/Check.h"
#include "wire/FrameReader.h"

using namespace qel;

namespace {

struct Collector : FrameReader::Sink {
    explicit Collector(std::size_t largestFrame) : largest(largestFrame) {}
    bool frameReceived(FrameKind kind, ConstByteSpan payload) override {
        fuzz::check(payload.size() + frameHeaderBytes <= largest, "no frame is larger than the limit");
        frames += static_cast<char>(kind);
        frames += payload.view();
        frames += '|';
        return true;
    }
    std::size_t largest;
    std::string frames;
};

std::string read(std::string_view bytes, std::uint32_t limit, std::size_t piece, std::string& error) {
    FrameReader reader(limit);
    Collector collector(limit);
    std::size_t fed = 0;
    while (fed < bytes.size()) {
        const std::string_view part = bytes.substr(fed, piece);
        fed += part.size();
        if (!reader.feed(ConstByteSpan(part), collector))
            break;
        fuzz::check(reader.getKeptBytes() <= 2 * fed + 1024, "memory stays with what has come");
    }
    error = reader.getError();
    return collector.frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const std::uint32_t limit = 5 + data[0] * 16u;
    const std::size_t piece = data[1] + 1u;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    std::string whole;
    std::string cut;
    const std::string expected = read(bytes, limit, std::max<std::size_t>(1, bytes.size()), whole);
    const std::string found = read(bytes, limit, piece, cut);
    fuzz::check(expected == found && whole == cut, "frames do not depend on how their bytes are cut");
    return 0;
}
