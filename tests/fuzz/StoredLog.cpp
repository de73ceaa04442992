// A central log whose keys and values hold any bytes: whatever reads it (lines, files, counts, the check of a store)
// comes to its end, agrees with the others, and shows each entry once.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include "auditing/AuditAside.h"
#include "auditing/AuditExport.h"
#include "auditing/AuditLogTools.h"
#include "fuzz/Check.h"
#include "fuzz/Recipe.h"
#include "fuzz/SharedStore.h"
#include "qelCore/StoreTools.h"
#include "qelCore/logging/Log.h"

using namespace qel;

namespace {

constexpr long long lowest = std::numeric_limits<long long>::min();
constexpr long long highest = std::numeric_limits<long long>::max();

/// Keys of the log's own shape, and others.
void fill(fuzz::Recipe& recipe, const Item& log) {
    while (!recipe.atEnd()) {
        const std::uint8_t kind = recipe.byte();
        Item key = test::centralKey(log, recipe.number(), recipe.number());
        if (kind % 4 == 2) {
            key = log;
            key.addString(recipe.text());
        } else if (kind % 4 == 3) {
            // Bytes behind the path that need not decode.
            std::string bytes(log.bytes().view());
            bytes += recipe.text();
            key.setPlain(ConstByteSpan(bytes));
        }
        ItemStore::current()->store(key, ConstByteSpan(recipe.text()));
    }
}

std::string exported(const Item& log, long long from, long long to) {
    static const test::TemporaryFolder folder;
    const std::string file = folder / "log.csv";
    AuditExport::exportCSV(file.c_str(), log, from, to);
    return test::TemporaryFolder::read(file);
}

void checkRange(const Item& log, long long from, long long to) {
    const std::string file = exported(log, from, to);
    const unsigned long long entries = AuditExport::countLines(log, from, to, ~0ULL - 1);
    fuzz::check(file.starts_with(AuditExport::csvHeader()) && file.ends_with('\n'),
                "a file begins with its header and ends with its last line");
    fuzz::check(static_cast<unsigned long long>(std::count(file.begin(), file.end(), '\n')) > entries,
                "a file has a line for each entry");
    const Item lines = AuditExport::getLines(log, from, to);
    fuzz::check(lines.isWellFormed(), "lines can be sent");
    std::string text;
    unsigned long long count = 0;
    Item::Iterator each(lines);
    for (Item line; each.decodeElementAsItem(line); ++count)
        AuditExport::appendCsvLine(text, line);
    fuzz::check(count <= entries, "no more lines than entries");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    ItemStore& store = fuzz::sharedStore().store();
    fuzz::Recipe recipe(data, size);
    const long long from = recipe.number();
    const long long to = recipe.number();
    const Item log = test::path("log");
    fill(recipe, log);
    checkRange(log, lowest, highest);
    checkRange(log, from, to);
    const auto fault = [](const std::string&, const std::string& sentence) {
        fuzz::check(!sentence.empty(), "a fault has a sentence");
    };
    AuditLogTools::verify(log, LogShape::central, fault);
    AuditLogTools::verify(log, LogShape::queue, fault);
    AuditLogTools::summarize(log, LogShape::central);
    AuditLogTools::summarize(log, LogShape::queue);
    long long time = 0;
    AuditLogTools::oldest(log, LogShape::central, time);
    AuditLogTools::newest(log, LogShape::queue, time);
    StoreTools::verify(store, fault);
    AuditAside::walk(AsideReason::damaged, log, [](const AsideEntry&) { return true; });
    AuditLogTools::pruneCentral(log, to, false);
    fuzz::emptyStore(store);
    return 0;
}
