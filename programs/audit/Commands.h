#pragma once

#include "audit/CommandLine.h"
#include "common/ExitCode.h"

namespace qel::programs {

// One function per row of the table of commands, one file each. Every function declares its options, parses them,
// works, and returns the exit code; a Failure thrown on the way ends it.
int runInit(CommandLine& line);
int runEnroll(CommandLine& line);
int runRecord(CommandLine& line);
int runQueue(CommandLine& line);
int runSimulate(CommandLine& line);

}  // namespace qel::programs
