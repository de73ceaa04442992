// Any bytes as a line that `record` and `record --replay` take: refused with a sentence, or an event that can be stored,
// written as a line and read again to the same.

#include <cstdint>
#include <string>
#include <string_view>

#include "common/EventLine.h"
#include "fuzz/Check.h"
#include "qelCore/String.h"

using namespace qel;
using namespace qel::programs;

namespace {

template <class Read>
bool read(const Read& line) {
    try {
        line();
        return true;
    } catch (const BadEventLine& bad) {
        fuzz::check(*bad.what() != '\0', "a refusal has a sentence");
        return false;
    }
}

void checkEvent(const Item& event) {
    fuzz::check(event.isWellFormed(), "an event is well-formed");
    String name;
    fuzz::check(Item::Iterator(event).decodeElementAsString(name), "an event begins with its name");
    const std::string line = writeEventLine(event);
    fuzz::check(line.find('\n') == std::string::npos, "an event is written as one line");
    Item again;
    fuzz::check(read([&] { readEventLine(line, again); }) && again == event, "an event is read back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    Item event;
    event.addString("left from the line before");
    if (read([&] { readEventLine(line, event); }))
        checkEvent(event);
    if (read([&] { readReplayLine(line, event); }))
        checkEvent(event);
    return 0;
}
