// Any bytes as hello, welcome and open: what is read is what is written, and what is refused has a sentence.

#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "wire/Handshake.h"

using namespace qel;

namespace {

template <class Message>
void readAndWrite(ConstByteSpan payload, bool moreMayFollow) {
    Message message;
    std::string error;
    if (!message.read(payload, error)) {
        fuzz::check(!error.empty(), "a refusal has a sentence");
        return;
    }
    std::string written;
    message.write(written);
    const std::string_view again = std::string_view(written).substr(frameHeaderBytes);
    fuzz::check(again == payload.view().substr(0, again.size()), "what was read is written the same");
    fuzz::check(moreMayFollow || again.size() <= payload.size(), "nothing is made up");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ConstByteSpan payload(data, size);
    readAndWrite<Hello>(payload, true);
    readAndWrite<Welcome>(payload, true);
    readAndWrite<Open>(payload, true);
    Hello hello;
    std::string error;
    if (hello.read(payload, error)) {
        const std::uint16_t version = hello.chooseVersion(error);
        fuzz::check(version != 0 || !error.empty(), "no version, but a sentence");
        fuzz::check(version <= newestProtocolVersion, "no version that is not spoken here");
    }
    fuzz::check(limitReason(payload.view()).size() <= longestReason, "reasons are cut");
    return 0;
}
