#include "audit/Commands.h"
#include "common/ConfigFile.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/Output.h"
#include "common/Times.h"
#include "doctor/Checks.h"
#include "qelCore/logging/Log.h"

namespace qel::programs {
namespace {

/// A daemon's configuration has a [service], a workstation's a [server].
bool isDaemonConfig(const std::string& text) {
    return text.find("[service]") != std::string::npos;
}

void examineDaemon(Diagnosis& diagnosis, const std::string& file, const DoctorWishes& wishes) {
    DaemonConfig config;
    readConfig(file, config);
    diagnosis.well("configuration");
    checkIdentity(diagnosis, config, config.tls, wallClock());
    checkServerName(diagnosis, config);
    checkSiteKey(diagnosis, config);
    checkCentralStore(diagnosis, config, wishes);
    checkFolders(diagnosis, config);
    checkExposure(diagnosis, config);
    checkListening(diagnosis, config);
}

void examineWorkstation(Diagnosis& diagnosis, const std::string& file, const DoctorWishes& wishes) {
    WorkstationConfig config;
    readConfig(file, config);
    diagnosis.well("configuration");
    checkIdentity(diagnosis, config, config.tls, wallClock());
    checkQueue(diagnosis, config, wishes, wallClock());
    checkService(diagnosis, config, wishes);
}

void tell(Output& output, const Diagnosis& diagnosis) {
    std::vector<JsonObject> findings;
    for (const Finding& finding : diagnosis.findings()) {
        JsonObject object;
        object.add("check", finding.check);
        object.add("well", finding.cause.empty());
        if (!finding.cause.empty()) {
            output.line(finding.check + ": " + finding.cause + ".\n    Cure: " + finding.cure + '.');
            object.add("cause", finding.cause);
            object.add("cure", finding.cure);
        }
        findings.push_back(object);
    }
    output.message(std::to_string(diagnosis.findings().size()) + " things looked at, " +
                   (diagnosis.faults() == 0 ? std::string("all well")
                                            : std::to_string(diagnosis.faults()) +
                                                  (diagnosis.faults() == 1 ? " fault" : " faults")));
    output.result().add("faults", static_cast<std::int64_t>(diagnosis.faults()));
    output.result().add("findings", findings);
    output.finish();
}

}  // namespace

int runDoctor(CommandLine& line) {
    std::string file;
    DoctorWishes wishes;
    line.describe(
        "Looks at everything that a daemon or a workstation needs: configuration, certificates and their "
        "dates, rights, "
        "store, disk, clock, and whether the service can be reached and takes this identity. Prints each "
        "fault with its "
        "cure; the exit code is 1 when there is one. Nothing is changed.");
    line.requiredText("--config", "FILE", file, "configuration of a daemon or of a workstation");
    line.flag("--auditor", wishes.auditor, "this user shall be able to read the logs");
    line.text("--groups", "FILE", wishes.groups, "groups file that reports are made with", "none");
    line.number("--least-free", "N", "MiB", wishes.leastFreeMebibytes, 0, INT32_MAX,
                "free disk space that is enough");
    line.number("--clock", "N", "seconds", wishes.clockSeconds, 0, 86400,
                "difference of clocks that is no fault");
    line.number("--waiting", "N", "days", wishes.waitingDays, 0, 36500,
                "age of waiting events that is no fault");
    line.example("qel-audit doctor --config qel-audit.toml");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    // What the libraries would log is told as findings.
    logging::setLevel(logging::levelOff);
    Diagnosis diagnosis;
    const std::string text = readTextFile(file);
    try {
        if (isDaemonConfig(text))
            examineDaemon(diagnosis, file, wishes);
        else
            examineWorkstation(diagnosis, file, wishes);
    } catch (const Failure& failure) {
        diagnosis.fault("configuration", failure.what(), "correct the line; the manual page lists every key");
    }
    checkGroups(diagnosis, wishes.groups);
    tell(output, diagnosis);
    return diagnosis.faults() == 0 ? exitDone : exitFaultFound;
}

}  // namespace qel::programs
