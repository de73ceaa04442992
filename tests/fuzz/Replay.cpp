// Gives each kept input of a fuzz target to it once: replay NAME FOLDER. A finding ends the program as it ends the fuzzer,
// behind a line with the input's name.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Target {
    const char* name;
    int (*run)(const std::uint8_t* data, std::size_t size);
};

}  // namespace

#include "Targets.inc"

namespace {

int replay(const Target& target, const char* folder) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout);
        target.run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    std::printf("%zu inputs\n", count);
    return count == 0;
}

}  // namespace

int main(int count, char** arguments) {
    for (const Target& target : targets)
        if (count == 3 && std::string_view(target.name) == arguments[1])
            return replay(target, arguments[2]);
    std::fprintf(stderr, "usage: %s NAME FOLDER\n", arguments[0]);
    return 2;
}
