#include "audit/Commands.h"

namespace qel::programs {

int runStore(CommandLine& line) {
    static const std::vector<Command> commands{
        {"info", "tell what a store holds and how large it is", runStoreInfo},
        {"ls", "print the entries of a store", runStoreLs},
        {"verify", "read everything and tell what is damaged", runStoreVerify},
        {"backup", "copy a store to one file while it is in use", runStoreBackup},
        {"restore", "make a store from such a file", runStoreRestore},
        {"prune", "remove the oldest events of a central log", runStorePrune},
        {"copy", "copy all entries into another store", runStoreCopy},
    };
    return dispatch(line.name(), "Look at, check, copy while in use, trim, and move a store", commands,
                    line.arguments());
}

}  // namespace qel::programs
