// Any text as the configuration of the daemon and of a workstation: it is refused with a sentence that names the file, or
// what was read, printed and read again, is the same.

#include <cstdint>
#include <string>

#include "common/ConfigFile.h"
#include "common/Failure.h"
#include "fuzz/Check.h"

using namespace qel;
using namespace qel::programs;

namespace {

constexpr const char* file = "fuzzed.toml";

template <class Config>
bool parse(const std::string& text, Config& config) {
    try {
        parseConfig(text, file, config);
        return true;
    } catch (const Failure& failure) {
        fuzz::check(failure.code() == exitConfiguration, "a fault of the configuration has its exit code");
        fuzz::check(std::string(failure.what()).starts_with(std::string(file) + ':'),
                    "a fault of the configuration names its place");
        return false;
    }
}

template <class Config>
void readAndPrint(const std::string& text) {
    Config config;
    if (!parse(text, config))
        return;
    for (const bool explained : {false, true}) {
        const std::string printed = printConfig(config, explained);
        Config again;
        fuzz::check(parse(printed, again), "what was printed can be read");
        fuzz::check(printConfig(again, explained) == printed, "what was printed reads back to the same");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    readAndPrint<DaemonConfig>(text);
    readAndPrint<WorkstationConfig>(text);
    return 0;
}
