#include <algorithm>

#include "audit/AgentMetrics.h"
#include "audit/Commands.h"
#include "audit/Forwarder.h"
#include "auditing/AuditLogTools.h"
#include "common/Failure.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/QueueLock.h"
#include "common/ServiceManager.h"

namespace qel::programs {
namespace {

// How soon events that another process appended are seen.
constexpr auto agentTurn = std::chrono::milliseconds(200);
constexpr auto onceTurn = std::chrono::milliseconds(100);
// A server that restarts deserves more than one try; people who wait for an answer do not want many.
constexpr std::uint64_t triesOnce = 3;
constexpr long long lookAtFilesEvery = 60LL * 1000000;

std::uint64_t waitingEvents(Workstation& workstation) {
    std::uint64_t count = 0;
    for (const char* log : {"interaction", "audit"})
        count += AuditLogTools::summarize(workstation.sequence(log).getPath(), LogShape::queue).events;
    return count;
}

bool isEmpty(Workstation& workstation) {
    Item first;
    return !workstation.sequence("interaction").getPath().child(first) &&
           !workstation.sequence("audit").getPath().child(first);
}

int forwardOnce(Workstation& workstation, Output& output, const ServiceManager& manager) {
    // Only a bar needs to know beforehand how much there is.
    const std::uint64_t waiting = Progress::isShown(output.quiet()) ? waitingEvents(workstation) : 0;
    ForwardState state;
    const Progress clock("", 0, true);
    if (!isEmpty(workstation)) {
        Progress progress("forwarding", waiting, output.quiet());
        Forwarder forwarder(workstation);
        forwarder.start();
        while (!state.drained) {
            state = forwarder.wait(onceTurn);
            progress.update(state.acknowledged);
            const std::uint64_t tries =
                std::max<std::uint64_t>(triesOnce, workstation.config().addresses.size());
            if (!state.drained && state.failedTries >= tries)
                throw Failure(exitUnavailable, state.trouble + "; " + grouped(state.acknowledged) +
                                                   " events were forwarded, the rest waits");
            if (manager.wait(std::chrono::milliseconds(0)) == ServiceManager::Wish::stop)
                throw Failure(exitTemporary, "stopped; the rest of the queue waits");
            forwarder.poke();
        }
    }
    if (const CommitResult result = workstation.store().flush(); !result)
        throw Failure(exitInputOutput, "the queue could not be written: " + result.reason);
    output.message("forwarded " + grouped(state.acknowledged) +
                   (state.acknowledged == 1 ? " event, " : " events, ") +
                   rateOf(state.acknowledged, clock.seconds()) + "; the queue is empty");
    if (state.parked > 0 || state.damaged > 0)
        output.warning(grouped(state.parked) + " too large and " + grouped(state.damaged) +
                       " damaged events were kept aside, 'queue' tells of them");
    output.result().add("forwarded", static_cast<std::int64_t>(state.acknowledged));
    output.result().add("parked", static_cast<std::int64_t>(state.parked));
    output.result().add("damaged", static_cast<std::int64_t>(state.damaged));
    output.finish();
    return exitDone;
}

int runAgent(Workstation& workstation, const ServiceManager& manager) {
    Forwarder forwarder(workstation);
    forwarder.start();
    std::unique_ptr<AgentMetrics> metrics;
    if (!workstation.config().metricsListen.empty()) {
        metrics = std::make_unique<AgentMetrics>(workstation, forwarder);
        logInformation("metrics at http://" + metrics->address() + "/metrics");
    }
    manager.ready("forwarding");
    long long nextLook = 0;
    while (true) {
        const ServiceManager::Wish wish = manager.wait(agentTurn);
        if (wish == ServiceManager::Wish::stop)
            break;
        const long long now = wallClock();
        if (wish == ServiceManager::Wish::reload || now >= nextLook) {
            nextLook = now + lookAtFilesEvery;
            std::string error;
            if (workstation.credentials()->reloadIfChanged(error))
                logInformation("certificates changed on disk are in use from the next connection on");
            else if (!error.empty())
                logWarning(error);
        }
        forwarder.poke();
        if (manager.watchdogInterval())
            manager.alive();
    }
    manager.stopping();
    return exitDone;
}

}  // namespace

int runForward(CommandLine& line) {
    std::string config;
    bool once = false;
    line.describe(
        "Sends what waits in the queues to the service, oldest first, and removes each event when the "
        "service has "
        "acknowledged that it is on disk there. Without --once it runs as an agent until SIGTERM: it heals "
        "lost "
        "connections by itself, reads renewed certificates from disk, and prints log lines only.");
    line.requiredText("--config", "FILE", config, "configuration of the workstation");
    line.flag("--once", once, "end when the queues are empty");
    line.example("qel-audit forward --config qel-audit.toml --once");
    if (const auto code = line.parse())
        return *code;

    const ServiceManager manager;
    if (!once)
        setUpServiceLog();
    Output output(line.name(), line.quiet(), line.json());
    Workstation workstation(config, Workstation::Use::work);
    const QueueLock lock(workstation.store().path());
    return once ? forwardOnce(workstation, output, manager) : runAgent(workstation, manager);
}

}  // namespace qel::programs
