#include "audit/Commands.h"
#include "auditing/AuditAside.h"
#include "auditing/AuditLogTools.h"
#include "common/EventLine.h"
#include "common/Failure.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/Workstation.h"
#include "qelCore/logging/Log.h"

namespace qel::programs {
namespace {

/// Prints the oldest `most` events of a queue, one line each.
std::vector<JsonObject> showEvents(const Output& output, const Item& path, std::int64_t most) {
    std::vector<JsonObject> shown;
    Item position;
    bool found = most > 0 && path.child(position);
    for (; found && static_cast<std::int64_t>(shown.size()) < most; found = position.next()) {
        long long time = 0;
        Item event;
        event.setPlain(position.fetch());
        const bool dated = position.trail().decodeElementAsInteger(time);
        const std::string when = dated ? formatUtc(time) : std::string("(no time)");
        const std::string what = writeEventLine(event);
        output.line("  " + when + ' ' + logging::escaped(what));
        JsonObject object;
        object.add("time", when);
        object.add("event", what);
        shown.push_back(object);
    }
    return shown;
}

std::string describe(const std::string& name, const LogSummary& summary, long long damaged,
                     long long parked) {
    std::string text = name + ": " + grouped(summary.events) + (summary.events == 1 ? " event" : " events");
    if (summary.events > 0)
        text += ", oldest " + formatUtc(summary.oldest) + ", newest " + formatUtc(summary.newest);
    if (damaged > 0)
        text += ", " + grouped(static_cast<std::uint64_t>(damaged)) + " damaged entries kept aside";
    if (parked > 0)
        text += ", " + grouped(static_cast<std::uint64_t>(parked)) + " too large for the service, kept aside";
    return text;
}

void returnParked(Workstation& workstation, Output& output) {
    long long returned = 0;
    for (const char* name : {"interaction", "audit"})
        returned += AuditAside::returnParked(workstation.sequence(name).getPath());
    if (const CommitResult result = workstation.store().flush(); !result)
        throw Failure(exitInputOutput, "the queue could not be written: " + result.reason);
    output.message(grouped(static_cast<std::uint64_t>(returned)) + " parked " +
                   (returned == 1 ? "event is" : "events are") + " in the queue again");
    output.result().add("returned", static_cast<std::int64_t>(returned));
}

}  // namespace

int runQueue(CommandLine& line) {
    std::string config;
    std::int64_t show = 0;
    bool returns = false;
    line.describe(
        "Tells what waits to be forwarded: how many events of each log, the time of the oldest, and what was "
        "kept aside because it was damaged or too large for the service. It may run beside the agent.");
    line.requiredText("--config", "FILE", config, "configuration of the workstation");
    line.number("--show", "N", "events", show, 0, 1000000000,
                "print that many of the oldest events of each log");
    line.flag("--return-parked", returns,
              "first put events that were too large back into their queues, for a service that takes larger "
              "ones now");
    line.example("qel-audit queue --config qel-audit.toml --show 5");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    Workstation workstation(config, Workstation::Use::look);
    if (returns)
        returnParked(workstation, output);
    std::int64_t total = 0;
    JsonObject logs;
    for (const char* name : {"interaction", "audit"}) {
        const Item& path = workstation.sequence(name).getPath();
        const LogSummary summary = AuditLogTools::summarize(path, LogShape::queue);
        const long long damaged = AuditAside::count(AsideReason::damaged, path);
        const long long parked = AuditAside::count(AsideReason::parked, path);
        output.line(describe(name, summary, damaged, parked));
        JsonObject log;
        log.add("count", static_cast<std::int64_t>(summary.events));
        if (summary.events > 0) {
            log.add("oldest", formatUtc(summary.oldest));
            log.add("newest", formatUtc(summary.newest));
        }
        log.add("damaged", static_cast<std::int64_t>(damaged));
        log.add("parked", static_cast<std::int64_t>(parked));
        if (const std::vector<JsonObject> shown = showEvents(output, path, show); show > 0)
            log.add("events", shown);
        logs.add(name, log);
        total += static_cast<std::int64_t>(summary.events);
    }
    output.result().add("count", total);
    output.result().add("logs", logs);
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
