#include "audit/Commands.h"

namespace qel::programs {

const std::vector<Command>& auditCommands() {
    static const std::vector<Command> commands{
        {"simulate", "write the events of an imagined site", runSimulate},
    };
    return commands;
}

}  // namespace qel::programs
