#include "audit/Commands.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/Output.h"
#include "common/SecretFile.h"
#include "qelNet/Authority.h"

namespace qel::programs {

int runRequest(CommandLine& line) {
    std::string user;
    std::string device;
    std::string folder;
    line.describe(
        "Makes the key of a workstation on the workstation itself, which it never leaves, and the request "
        "that "
        "'qel-audit enroll --csr' turns into a certificate where the authority's key is.");
    line.position("DIR", folder, "new folder for workstation.key and workstation.csr");
    line.requiredText("--user", "U", user, "name of the user, 1 to 64 characters");
    line.requiredText("--device", "D", device, "name of the device, 1 to 64 characters");
    line.example("qel-audit request anna --user anna --device ws-01");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    std::string error;
    if (!Authority::acceptsNames(user, device, error))
        throw Failure(exitBadData, error);
    createNewFolder(folder);
    std::string request;
    if (!Authority::createRequest(user, device, folder + "/workstation.key", request, error))
        throw Failure(exitCannotCreate, error);
    writeNewFile(folder + "/workstation.csr", request);
    output.message("bring " + folder +
                   "/workstation.csr to the authority and sign it with 'qel-audit enroll --csr'");
    output.result().add("request", folder + "/workstation.csr");
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
