#include "auditing/AuditExport.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "export/CsvFile.h"
#include "export/CsvLine.h"
#include "export/LogRange.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

/// Each line goes out whole and at once, so that whoever reads along, or finds the file after a crash, sees lines. The
/// stream's buffer is used directly: the checks of its formatted output would be a tenth of the work per line.
void put(std::filebuf& out, std::string_view line) {
    out.sputn(line.data(), static_cast<std::streamsize>(line.size()));
    out.pubsync();
}

/// What ends in the middle of a log must not pass for the whole.
void discard(int level, const char* path, const std::string& reason) {
    logging::MessageStream(level, 2) << "The export to " << path << " was given up: " << reason;
    std::error_code error;
    if (std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error)))
        std::filesystem::remove(path, error);
}

/// Lines between two looks whether anybody still waits for the file: some milliseconds.
constexpr unsigned linesBetweenLooks = 4096;

}  // namespace

void writeCsvFile(const char* path, const Item& log, long long startTime, long long endTime,
                  const std::function<bool()>& isWanted) {
    logging::MessageStream(1, 2) << "Starting export to " << path;
    std::ofstream out(path, std::ios_base::out | std::ios_base::trunc);
    std::filebuf& file = *out.rdbuf();
    put(file, std::string(CsvLine::header) + '\n');
    const SteadyRead moment;
    LogRange range = LogRange::including(log, startTime, endTime);
    CsvLine line;
    bool wanted = true;
    for (unsigned lines = 0; wanted && range.next(); ++lines) {
        line.begin(range.time());
        // Read where it lies: the bytes stay until the next step of the walk.
        line.addFields(Item::Iterator(range.value()));
        line.end();
        put(file, line.text());
        wanted = lines % linesBetweenLooks != 0 || isWanted();
    }
    out.close();
    if (!wanted)
        discard(1, path, "nobody waits for it any more");
    else if (const CommitResult read = moment.result(); !read)
        discard(3, path, read.reason);
}

void AuditExport::exportCSV(const char* path, const Item& log, long long startTime, long long endTime) {
    writeCsvFile(path, log, startTime, endTime, [] { return true; });
}

Item AuditExport::getLines(const Item& log, long long startTimeInclusive, long long endTimeExclusive) {
    Item lines;
    if (log.isEmpty())
        return lines;
    LogRange range = LogRange::excluding(log, startTimeInclusive, endTimeExclusive);
    Item value;
    while (range.next()) {
        if (range.value().isNull())
            continue;
        value.setPlain(range.value());
        Item line = range.position().trail();
        line.concatItem(value);
        lines.addItem(line);
    }
    return lines;
}

const char* AuditExport::csvHeader() {
    return CsvLine::header.data();
}

void AuditExport::appendCsvLine(std::string& text, const Item& line) {
    Item key;
    long long time = 0;
    Item::Iterator elements(line);
    if (elements.decodeElementAsItem(key))
        key.decodeElementAsInteger(time);
    CsvLine made;
    made.begin(time);
    made.addFields(elements);
    made.end();
    text += made.text();
}

unsigned long long AuditExport::countLines(const Item& log, long long startTime, long long endTime,
                                           unsigned long long most) {
    LogRange range = LogRange::including(log, startTime, endTime);
    unsigned long long count = 0;
    while (count <= most && range.next())
        ++count;
    return count;
}

const char* AuditExport::getStaticClassName() {
    return "AuditExport";
}

}  // namespace qel
