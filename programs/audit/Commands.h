#pragma once

#include "common/CommandLine.h"
#include "common/ExitCode.h"

namespace qel::programs {

/// The table of qel-audit.
const std::vector<Command>& auditCommands();

/// qel-audit whole: what main calls.
int runAudit(const std::vector<std::string>& arguments);

// One function per row of the table of commands, one file each. Every function declares its options, parses them,
// works, and returns the exit code; a Failure thrown on the way ends it.
int runInit(CommandLine& line);
int runEnroll(CommandLine& line);
int runRequest(CommandLine& line);
int runRenew(CommandLine& line);
int runRevoke(CommandLine& line);
int runRecord(CommandLine& line);
int runForward(CommandLine& line);
int runQueue(CommandLine& line);
int runExport(CommandLine& line);
int runDownload(CommandLine& line);
int runLines(CommandLine& line);
int runReport(CommandLine& line);
int runStore(CommandLine& line);
int runStoreInfo(CommandLine& line);
int runStoreLs(CommandLine& line);
int runStoreVerify(CommandLine& line);
int runStoreBackup(CommandLine& line);
int runStoreRestore(CommandLine& line);
int runStorePrune(CommandLine& line);
int runStoreCopy(CommandLine& line);
int runDoctor(CommandLine& line);
int runSimulate(CommandLine& line);

}  // namespace qel::programs
