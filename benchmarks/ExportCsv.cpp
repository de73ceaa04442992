// How fast does a log become a file? exportCSV flushes each line, so its floor is one write per line of text that is
// ready in memory, into a file of the same disk. QEL_BENCH_ENTRIES sets the number of lines.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "auditing/AuditExport.h"
#include "auditing/AuditLogTools.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/Log.h"
#include "support/Figures.h"
#include "support/TemporaryFolder.h"

namespace {

using namespace qel;

constexpr int rounds = 3;
constexpr long long firstTime = 1700000000000000;

Item recordOf(long number) {
    Item value = AuditLogTools::origin("anna.schmidt", "reading-room-3", 0, false);
    value.addString("DataAccess");
    value.addString("1.2.840.113619.2.55.3.604688119.971." + std::to_string(number));
    value.addString("1.2.840.113619.2.55.3.604688119." + std::to_string(number / 7));
    value.addInteger(number % 500);
    return value;
}

void fill(const Item& log, long entries) {
    WriteBatch batch;
    for (long i = 0; i < entries; ++i) {
        Item last;
        last.addInteger(firstTime + i * 400000);
        last.addInteger(4000000000LL + i % 8);
        Item key(log);
        key.addItem(last);
        key.store(recordOf(i));
        if (i % 10000 == 9999)
            batch.commit();
    }
    batch.commit();
}

/// The lines of a file, each with its line end.
std::vector<std::string> linesOf(const std::string& file) {
    const std::string text = test::TemporaryFolder::read(file);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    return lines;
}

void writeEach(const std::vector<std::string>& lines, const std::string& file) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (const std::string& line : lines)
        if (write(descriptor, line.data(), line.size()) < 0)
            std::perror("write");
    close(descriptor);
}

}  // namespace

int main() {
    logging::setLevel(logging::levelError);
    const long entries = bench::sizeFrom("QEL_BENCH_ENTRIES", 1000000);
    const test::TemporaryFolder folder;
    std::string reason;
    const std::unique_ptr<ItemStore> store = ItemStore::open("lmdb:" + (folder / "store"), {}, reason);
    if (!store) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 1;
    }
    ItemStore::setCurrent(store.get());
    Item log;
    log.addString("central");
    fill(log, entries);

    const auto exportAll = [&] {
        AuditExport::exportCSV((folder / "log.csv").c_str(), log, 0, std::numeric_limits<long long>::max());
    };
    exportAll();
    const std::vector<std::string> lines = linesOf(folder / "log.csv");
    if (lines.size() != static_cast<std::size_t>(entries) + 1) {
        std::fprintf(stderr, "%zu lines instead of %ld\n", lines.size(), entries + 1);
        return 1;
    }
    std::vector<double> floor;
    std::vector<double> ours;
    for (int round = 0; round < rounds; ++round) {
        floor.push_back(bench::seconds([&] { writeEach(lines, folder / "floor.csv"); }));
        ours.push_back(bench::seconds(exportAll));
    }
    const double count = static_cast<double>(entries);
    bench::print("export_csv_floor", count / bench::median(floor), "lines/s");
    bench::print("export_csv", count / bench::median(ours), "lines/s", count / bench::median(floor));
    return 0;
}
