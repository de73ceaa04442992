#include <climits>
#include <filesystem>

#include "audit/Commands.h"
#include "auditing/AuditLogTools.h"
#include "common/CentralStore.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "qelCore/StoreTools.h"

namespace qel::programs {
namespace {

void createParent(const std::string& file) {
    const std::filesystem::path parent = std::filesystem::path(file).parent_path();
    if (!parent.empty())
        createFolder(parent.string());
}

std::unique_ptr<ItemStore> openCopyTarget(const std::string& url) {
    StoreOptions options;
    // What the source's daemon took, the copy takes too.
    options.valueLimit = options.pendingLimit / 2;
    std::string reason;
    std::unique_ptr<ItemStore> target = ItemStore::open(url, options, reason);
    if (!target)
        throw Failure(outOfReach(reason) ? exitUnavailable : exitCannotCreate, reason);
    return target;
}

// Where the source itself is lost, the reason for that is told, not the missing trace.
void leaveTraceIfPossible(CentralStore& central, const StoreTools::CopyOutcome& outcome) {
    try {
        central.leaveTrace("copy", "all", LLONG_MIN, LLONG_MAX, outcome.added, 0);
    } catch (const Failure& failure) {
        static_cast<void>(failure);
    }
}

void tellCopy(Output& output, const StoreTools::CopyOutcome& outcome, double seconds) {
    output.message(
        (outcome.resumed ? "went on and copied " : "copied ") + grouped(outcome.added) + " entries, " +
        rateOf(outcome.added, seconds) + "; compared " + grouped(outcome.entries) + ": " +
        (outcome.isSame() ? "both stores hold the same, SHA-256 " + outcome.checksum : "they differ"));
    if (!outcome.isSame())
        output.warning(grouped(outcome.differing) + " entries have other content at the target, " +
                       grouped(outcome.extra) + " are there only, " + grouped(outcome.missing) +
                       " are missing there");
    output.result().add("copied", static_cast<std::int64_t>(outcome.added));
    output.result().add("resumed", outcome.resumed);
    output.result().add("entries", static_cast<std::int64_t>(outcome.entries));
    output.result().add("targetEntries", static_cast<std::int64_t>(outcome.targetEntries));
    output.result().add("bytes", static_cast<std::int64_t>(outcome.bytes));
    output.result().add("differing", static_cast<std::int64_t>(outcome.differing));
    output.result().add("extra", static_cast<std::int64_t>(outcome.extra));
    output.result().add("missing", static_cast<std::int64_t>(outcome.missing));
    output.result().add("checksum", outcome.checksum);
    output.result().add("targetChecksum", outcome.targetChecksum);
}

}  // namespace

int runStoreBackup(CommandLine& line) {
    std::string url;
    std::string out;
    bool compact = false;
    line.describe(
        "Writes a consistent copy of a store, as it is at this moment, to one file that 'store restore' "
        "reads. The "
        "store may be in use. A copy of a central log leaves an event in its audit trail.");
    line.requiredText("--store", "URL", url, "lmdb:PATH");
    line.requiredText("--out", "PATH", out, "file to write, replaced when it exists");
    line.flag("--compact", compact, "leave out unused pages, which takes longer");
    line.example("qel-audit store backup --store lmdb:store --out store.backup");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    storeFolder(url);
    CentralStore central(url);
    const bool trail = central.keepsTrail();
    if (trail)
        central.requireTrace();
    createParent(out);
    const Progress clock("", 0, true);
    if (const CommitResult result = StoreTools::backup(central.store(), out, compact); !result)
        throw Failure(exitCannotCreate, out + ": " + result.reason);
    std::error_code error;
    const std::uint64_t bytes = std::filesystem::file_size(out, error);
    if (error || bytes == 0)
        throw Failure(exitInputOutput, out + ": is not there after the backup");
    if (trail)
        central.leaveTrace("backup", "all", LLONG_MIN, LLONG_MAX, central.store().space().entries, bytes);
    output.message("wrote " + grouped(bytes) + " bytes to " + out + " in " + std::to_string(clock.seconds()) +
                   " seconds");
    output.result().add("bytes", static_cast<std::int64_t>(bytes));
    output.result().add("file", out);
    output.finish();
    return exitDone;
}

int runStoreRestore(CommandLine& line) {
    std::string url;
    std::string from;
    line.describe(
        "Makes a store from a file that 'store backup' wrote, and checks it by opening it. The folder must "
        "not hold "
        "a store.");
    line.requiredText("--from", "FILE", from, "file that 'store backup' wrote");
    line.requiredText("--store", "URL", url, "lmdb:PATH of the new store");
    line.example("qel-audit store restore --from store.backup --store lmdb:restored");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    const std::string folder = storeFolder(url);
    std::error_code error;
    if (!std::filesystem::is_regular_file(from, error))
        throw error ? systemFailure(exitInputMissing, from, error.value())
                    : Failure(exitInputMissing, from + ": expected a regular file");
    createParent(folder);
    if (const CommitResult result = StoreTools::restore(from, folder); !result)
        throw Failure(exitCannotCreate, result.reason);
    const std::uint64_t entries = openStore(url, true)->space().entries;
    output.message("restored " + grouped(entries) + " entries to " + folder +
                   "; 'store verify' reads them all");
    output.result().add("entries", static_cast<std::int64_t>(entries));
    output.result().add("store", url);
    output.finish();
    return exitDone;
}

int runStoreCopy(CommandLine& line) {
    std::string from;
    std::string to;
    line.describe(
        "Copies every entry of a store into another one, which is made when it does not exist, and compares "
        "both at the end: number, content and checksum. What the target has is never changed: entries "
        "with other content there, or that only the target has, are printed, and the exit code is 1 then. "
        "Cut off, it goes on behind what is durable when it is run again; 75 says that a database "
        "was lost on the way. Both stores may be in use; stop the daemon of the first before a move, for "
        "what "
        "it writes after the comparison stays behind. A copy of a central log leaves an event in its audit "
        "trail.");
    line.requiredText("--from", "URL", from, "store to read");
    line.requiredText("--to", "URL", to, "store to write");
    line.example("qel-audit store copy --from lmdb:store --to postgresql://db/logs");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    CentralStore central(from);
    const bool trail = central.keepsTrail();
    if (trail)
        central.requireTrace();
    const std::unique_ptr<ItemStore> target = openCopyTarget(to);
    Progress progress("copying and comparing", 2 * central.store().space().entries, line.quiet());
    const auto fault = [&](const std::string& key, const std::string& sentence) {
        output.line(key + ": " + sentence);
    };
    const StoreTools::CopyOutcome outcome =
        StoreTools::copy(central.store(), *target, fault, [&](std::uint64_t done) {
            progress.show(done);
            return true;
        });
    if (!outcome.result) {
        if (trail && outcome.added > 0)
            leaveTraceIfPossible(central, outcome);
        const bool reachable = central.store().statistics().reachable && target->statistics().reachable;
        throw Failure(reachable ? exitInputOutput : exitTemporary,
                      outcome.result.reason + "; " + grouped(outcome.added) +
                          " entries were copied, and the same command goes on behind them");
    }
    if (trail)
        central.leaveTrace("copy", "all", LLONG_MIN, LLONG_MAX, outcome.entries, outcome.bytes);
    tellCopy(output, outcome, progress.seconds());
    output.finish();
    return outcome.isSame() ? exitDone : exitFaultFound;
}

int runStorePrune(CommandLine& line) {
    std::string url;
    std::string name;
    std::optional<TimeSpan> before;
    bool dryRun = false;
    line.describe(
        "Removes the events of a central log that are older than a time, oldest first. The time itself "
        "stays, and "
        "so does all of a day, month, quarter or year that is named. An event in the audit trail tells who "
        "removed how many. A workstation's queue is refused.");
    line.requiredText("--store", "URL", url, "lmdb:PATH or postgresql://…");
    line.requiredChoice("--log", name, {"interaction", "audit"}, "which of the two logs");
    line.requiredTime("--before", before, "first time that stays");
    line.flag("--dry-run", dryRun, "only count");
    line.example("qel-audit store prune --store lmdb:store --log interaction --before 2016");
    if (const auto code = line.parse())
        return *code;
    if (before->first > wallClock())
        return line.usageError("--before lies in the future");

    Output output(line.name(), line.quiet(), line.json());
    CentralStore central(url);
    const StoreLog log = central.centralLog(name);
    const std::uint64_t found = AuditLogTools::pruneCentral(log.path, before->first, true);
    std::uint64_t removed = 0;
    if (!dryRun && found > 0) {
        // The trace comes first: whatever ends the work half-way, the audit trail says that it was begun, and by whom.
        central.leaveTrace("prune", name, LLONG_MIN, before->first - 1, found, 0);
        Progress progress("removing", found, line.quiet());
        removed = AuditLogTools::pruneCentral(log.path, before->first, false, [&](std::uint64_t done) {
            progress.update(done);
            return true;
        });
        if (const CommitResult result = ItemStore::flush(); !result)
            throw Failure(exitInputOutput, result.reason + "; " + grouped(removed) + " events were removed");
    }
    output.message(dryRun ? grouped(found) + " events would be removed"
                          : grouped(removed) + (removed == 1 ? " event" : " events") + " removed");
    output.result().add("found", static_cast<std::int64_t>(found));
    output.result().add("removed", static_cast<std::int64_t>(removed));
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
