#include "audit/Commands.h"
#include "auditing/AuditLogTools.h"
#include "common/CentralStore.h"
#include "common/EventLine.h"
#include "common/Failure.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "qelCore/StoreTools.h"
#include "qelCore/String.h"
#include "qelCore/logging/Log.h"

namespace qel::programs {
namespace {

LogShape shapeOf(const StoreLog& log) {
    return log.kind == StoreLog::Kind::central ? LogShape::central : LogShape::queue;
}

std::string bytesText(std::uint64_t bytes) {
    return grouped(bytes) + " bytes";
}

JsonObject tellLog(const Output& output, const StoreLog& log) {
    const LogSummary summary = AuditLogTools::summarize(log.path, shapeOf(log));
    const char* kind = log.kind == StoreLog::Kind::central ? "central log" : "queue";
    std::string text = log.name + ": " + kind + (log.anonymous ? ", anonymous" : "") + " at " +
                       log.path.asString().str() + ", " + grouped(summary.events) +
                       (summary.events == 1 ? " event" : " events");
    JsonObject object;
    object.add("kind", kind);
    object.add("path", log.path.asString().view());
    object.add("anonymous", log.anonymous);
    object.add("count", static_cast<std::int64_t>(summary.events));
    if (summary.events > 0) {
        text += ", " + formatUtc(summary.oldest) + " to " + formatUtc(summary.newest);
        object.add("oldest", formatUtc(summary.oldest));
        object.add("newest", formatUtc(summary.newest));
    }
    output.line(text);
    return object;
}

void tellSpace(Output& output, const StoreSpace& space) {
    // A database tells its size and nothing of pages and disks.
    if (space.pageBytes == 0) {
        output.line("table and index: " + bytesText(space.usedBytes));
    } else {
        output.line("file: " + bytesText(space.fileBytes) + ", " + bytesText(space.usedBytes) + " used, " +
                    grouped(space.freePages) + " free pages of " + bytesText(space.pageBytes));
        output.line("readers: " + std::to_string(space.readers) + " of " + std::to_string(space.readerSlots) +
                    " slots, the oldest " + grouped(space.oldestReaderLag) + " commits behind");
        output.line("disk: " + bytesText(space.diskFreeBytes) + " free");
    }
    JsonObject object;
    object.add("entries", static_cast<std::int64_t>(space.entries));
    object.add("fileBytes", static_cast<std::int64_t>(space.fileBytes));
    object.add("usedBytes", static_cast<std::int64_t>(space.usedBytes));
    object.add("freePages", static_cast<std::int64_t>(space.freePages));
    object.add("pageBytes", static_cast<std::int64_t>(space.pageBytes));
    object.add("readers", static_cast<std::int64_t>(space.readers));
    object.add("diskFreeBytes", static_cast<std::int64_t>(space.diskFreeBytes));
    output.result().add("space", object);
}

/// One entry of a log as a line: its time, the origin's checksum where there is one, and the values.
bool printEntry(const Output& output, const Item& position, LogShape shape, const TimeSpan& range) {
    const Item trail = position.trail();
    long long time = 0;
    long long checksum = 0;
    Item key = trail;
    if (shape == LogShape::central)
        trail.decodeElementAsItem(key);
    Item::Iterator elements(key);
    const bool dated = elements.decodeElementAsInteger(time);
    if (dated && time > range.last)
        return false;
    std::string text = dated ? formatUtc(time) : trail.asString().str();
    if (elements.decodeElementAsInteger(checksum))
        text += ' ' + std::to_string(checksum);
    Item value;
    value.setPlain(position.fetch());
    const std::string event = writeEventLine(value);
    if (!output.json()) {
        output.line(text + ' ' + logging::escaped(event));
        return true;
    }
    JsonObject object;
    object.add("time", dated ? formatUtc(time) : text);
    if (shape == LogShape::central)
        object.add("origin", static_cast<std::int64_t>(checksum));
    object.add("values", event);
    std::fputs((object.text() + '\n').c_str(), stdout);
    return true;
}

/// Where the walk of a range begins: directly before its first possible key.
Item before(const StoreLog& log, std::int64_t first) {
    Item position = log.path;
    if (log.kind == StoreLog::Kind::queue) {
        position.addInteger(first == INT64_MIN ? first : first - 1);
        return position;
    }
    constexpr long long largestChecksum = 4294967295;
    Item key;
    key.addInteger(first == INT64_MIN ? first : first - 1);
    key.addInteger(first == INT64_MIN ? 0 : largestChecksum);
    position.addItem(key);
    return position;
}

}  // namespace

int runStoreInfo(CommandLine& line) {
    std::string url;
    line.describe(
        "Tells the format and identity of a store, the events of each log, and the size and use of its "
        "files. "
        "The store may be in use.");
    line.requiredText("--store", "URL", url, "lmdb:PATH or postgresql://…");
    line.example("qel-audit store info --store lmdb:store");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    CentralStore central(url, true);
    const StoreIdentity identity = central.store().identity();
    output.line("format " + std::to_string(identity.format) + ", made " + formatUtc(identity.created) +
                (identity.siteKeyFingerprint.empty() ? "" : ", site key " + identity.siteKeyFingerprint));
    output.result().add("format", static_cast<std::int64_t>(identity.format));
    output.result().add("created", formatUtc(identity.created));
    output.result().add("siteKey", identity.siteKeyFingerprint);
    JsonObject logs;
    for (const StoreLog& log : central.store().logs())
        logs.add(log.name, tellLog(output, log));
    output.result().add("logs", logs);
    tellSpace(output, central.store().space());
    const ClockState clock = central.store().clock();
    if (clock.lead > 0)
        output.line("clock: the last time given out is " + std::to_string(clock.lead / 1000000) +
                    " seconds ahead of the present");
    output.result().add("clockLeadMicroseconds", static_cast<std::int64_t>(clock.lead));
    output.finish();
    return exitDone;
}

int runStoreLs(CommandLine& line) {
    std::string url;
    std::string name;
    std::optional<TimeSpan> from;
    std::optional<TimeSpan> to;
    std::int64_t limit = INT64_MAX;
    std::int64_t shown = 0;
    line.describe(
        "Prints the events of a log, oldest first: time in UTC, in a central log the checksum of the origin, "
        "and "
        "the values as a JSON array. Both ends of a range are included. Reading a central log leaves an "
        "event "
        "in its audit trail.");
    line.requiredText("--store", "URL", url, "lmdb:PATH or postgresql://…");
    line.requiredChoice("--log", name, {"interaction", "audit"}, "which of the two logs");
    line.time("--from", from, "first time, included", "the oldest event");
    line.time("--to", to, "last time, included", "the newest event");
    line.number("--limit", "N", "events", shown, 0, INT64_MAX, "print that many at most, 0 for all");
    line.example("qel-audit store ls --store lmdb:store --log audit --limit 20");
    if (const auto code = line.parse())
        return *code;
    if (shown > 0)
        limit = shown;

    Output output(line.name(), line.quiet(), line.json());
    CentralStore central(url);
    StoreLog log;
    if (!central.store().findLog(name, log))
        throw Failure(exitConfiguration, url + ": knows no log \"" + name + '"');
    const TimeSpan range{from ? from->first : INT64_MIN, to ? to->last : INT64_MAX};
    const bool trail = central.keepsTrail();
    if (trail)
        central.leaveTrace("ls", name, range.first, range.last, static_cast<std::uint64_t>(shown), 0);
    std::int64_t count = 0;
    Item position = before(log, range.first);
    while (count < limit && position.next() && printEntry(output, position, shapeOf(log), range))
        ++count;
    if (output.json()) {
        output.result().add("shown", count);
    }
    output.finish();
    return exitDone;
}

int runStoreVerify(CommandLine& line) {
    std::string url;
    line.describe(
        "Reads every entry of a store: keys and values decode and ascend, and the entries of each log have "
        "its "
        "shape. Each fault is printed with its place; the exit code is 1 then. The store may be in use.");
    line.requiredText("--store", "URL", url, "lmdb:PATH or postgresql://…");
    line.example("qel-audit store verify --store lmdb:store");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    CentralStore central(url, true);
    std::uint64_t faults = 0;
    const auto fault = [&](const std::string& key, const std::string& sentence) {
        ++faults;
        output.line(key + ": " + sentence);
    };
    Progress progress("verifying", central.store().space().entries, line.quiet());
    const auto advance = [&](std::uint64_t done) {
        progress.update(done);
        return true;
    };
    const StoreTools::Outcome outcome = StoreTools::verify(central.store(), fault, advance);
    if (!outcome.result)
        throw Failure(exitInputOutput, url + ": could not be read to its end: " + outcome.result.reason);
    for (const StoreLog& log : central.store().logs())
        AuditLogTools::verify(log.path, shapeOf(log), fault);
    output.message(grouped(outcome.entries) + " entries read, " +
                   (faults == 0 ? std::string("no fault") : grouped(faults) + " faults"));
    output.result().add("entries", static_cast<std::int64_t>(outcome.entries));
    output.result().add("faults", static_cast<std::int64_t>(faults));
    output.finish();
    return faults == 0 ? exitDone : exitFaultFound;
}

}  // namespace qel::programs
