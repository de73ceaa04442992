#pragma once

namespace qel::programs {

/// What the programs return to their caller; scripts rely on these numbers, so they are stored for good.
enum ExitCode : int {
    exitDone = 0,
    exitFaultFound = 1,      // done, and a fault was found
    exitUsage = 64,          // wrong options
    exitBadData = 65,        // input that cannot be read as what it should be
    exitInputMissing = 66,   // an input file or store that is not there
    exitUnavailable = 69,    // the service, or a store's database, cannot be reached
    exitCannotCreate = 73,   // output that cannot be created
    exitInputOutput = 74,    // a read or write that failed half-way
    exitTemporary = 75,      // try again later
    exitNoPermission = 77,   // the caller may not do this, or not read that file
    exitConfiguration = 78,  // a configuration that cannot work
};

}  // namespace qel::programs
