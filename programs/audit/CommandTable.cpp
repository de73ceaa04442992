#include "audit/Commands.h"

namespace qel::programs {

const std::vector<Command>& auditCommands() {
    static const std::vector<Command> commands{
        {"init", "make a new site, or one more server of a site", runInit},
        {"enroll", "make the identities of workstations", runEnroll},
        {"report", "turn exported logs into a report page", runReport},
        {"simulate", "write the events of an imagined site", runSimulate},
    };
    return commands;
}

int runAudit(const std::vector<std::string>& arguments) {
    return dispatch("qel-audit", "Record, forward, export and report audit events", auditCommands(),
                    arguments);
}

}  // namespace qel::programs
