#include <cstdio>

#include "audit/Commands.h"
#include "common/ConfigManual.h"
#include "common/ServiceManager.h"

namespace qel::programs {

const std::vector<Command>& auditCommands() {
    static const std::vector<Command> commands{
        {"init", "make a new site, or one more server of a site", runInit},
        {"enroll", "make the identities of workstations", runEnroll},
        {"request", "make a key and ask for a certificate for it", runRequest},
        {"renew", "replace a certificate before it ends", runRenew},
        {"revoke", "shut an identity out", runRevoke},
        {"record", "put events into the local queue", runRecord},
        {"forward", "send the queues to the service", runForward},
        {"queue", "tell what waits in the queues", runQueue},
        {"download", "fetch a range of the central logs as files", runDownload},
        {"lines", "fetch a range of a central log as lines", runLines},
        {"export", "write a range of a log of a store on this machine", runExport},
        {"report", "turn exported logs into a report page", runReport},
        {"store", "look at, check, copy, trim and move a store", runStore},
        {"doctor", "find what keeps a daemon or a workstation from working", runDoctor},
        {"simulate", "write the events of an imagined site", runSimulate},
    };
    return commands;
}

int runAudit(const std::vector<std::string>& arguments) {
    if (arguments == std::vector<std::string>{"--man-config"}) {
        std::fputs(workstationConfigManual().c_str(), stdout);
        return exitDone;
    }
    setUpCommandLog();
    return dispatch("qel-audit", "Record, forward, export and report audit events", auditCommands(),
                    arguments);
}

}  // namespace qel::programs
