// What would a log written ahead gain? One flush of a file that grows by a burst of 64 events against one of a file whose
// blocks were written before, by turns in the same run. The embedded store flushes twice for each commit.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/Figures.h"
#include "support/TemporaryFolder.h"

namespace {

using namespace qel;

constexpr int flushes = 500;
constexpr int rounds = 9;

void require(bool done, const char* what) {
    if (done)
        return;
    std::perror(what);
    _exit(3);
}

/// Flushed bursts per second into a file from its beginning on.
double flushRate(const std::string& file, const std::string& burst, int flags) {
    const int out = open(file.c_str(), O_WRONLY | O_CREAT | flags, 0600);
    require(out >= 0, "open");
    const double took = bench::seconds([&] {
        for (int i = 0; i < flushes; ++i)
            require(write(out, burst.data(), burst.size()) > 0 && fdatasync(out) == 0, "flush");
    });
    close(out);
    return flushes / took;
}

}  // namespace

int main() {
    const test::TemporaryFolder folder;
    const std::string burst(64 * 150, 'x');
    flushRate(folder / "again", burst, O_TRUNC);
    std::vector<double> growing;
    std::vector<double> again;
    for (int round = 0; round < rounds; ++round) {
        growing.push_back(flushRate(folder / "growing", burst, O_TRUNC));
        again.push_back(flushRate(folder / "again", burst, 0));
    }
    const double floor = bench::median(growing);
    bench::print("flush_of_a_growing_file", floor, "bursts/s");
    bench::print("flush_of_blocks_written_before", bench::median(again), "bursts/s", floor);
    return 0;
}
