#include <filesystem>
#include <system_error>

#include "auditing/AuditExport.h"
#include "export/CsvFile.h"
#include "qelCore/ItemStore.h"
#include "qelCore/RpcContext.h"
#include "qelCore/RpcProvider.h"
#include "qelCore/String.h"
#include "qelCore/Vector.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

constexpr const char* group = "Auditing";

constexpr const char* downloadName = "download_audit_report";
constexpr const char* downloadSignature = "(String clientTargetPath, Array filter) : Bool success";
// Published like this since the first version and kept as written, "cvs" and the other order of the filter included:
// clients compare it.
constexpr const char* downloadDescription =
    "Download event log as cvs.\n"
    "\n"
    "                     @param filter - item containing the following parameters:\n"
    "\n"
    "                       filter[0]: UTCDateTime startTime\n"
    "\n"
    "                       filter[1]: UTCDateTime endTime\n"
    "\n"
    "                       filter[2]: Int logType - 0 = audit trail, else = interaction\n"
    "\n"
    "                       filter[3]: Bool exportBoth - default = false; logType will be ignored and both "
    "exported\n"
    "                     ";

constexpr const char* linesName = "get_audit_log";
constexpr const char* linesSignature =
    "(Int logType, UTCDateTime startTimeInclusive, UTCDateTime endTimeExclusive) : Array logLines";
constexpr const char* linesDescription = "Get audit report as array of log lines.";

/// What the framework makes the server-side names from.
constexpr const char* transferName = "tembra_audit_report";
constexpr const char* auditFile = "/audit_export.csv";
constexpr const char* interactionFile = "/constancy_export.csv";

/// The two logs, copied into every handler.
struct Logs {
    Item auditTrail;
    Item interactionLog;
};

/// What a download asks for. The filter is decoded as log type, start, end, although the description says otherwise.
struct Selection {
    int logType = 0;
    long long startTime = 0;
    long long endTime = 0;
    bool both = false;
};

bool decodeFilter(const Item& filter, Selection& selection) {
    Item::Iterator elements(filter);
    return elements.decodeElementAsInteger(selection.logType) &&
           elements.decodeElementAsInteger(selection.startTime) &&
           elements.decodeElementAsInteger(selection.endTime);
}

using Files = Vector<RpcContext::FilePair>;

/// A large log takes minutes: when the caller goes meanwhile, or the service stops, so does the export.
void exportFor(const RpcContext& context, const String& path, const Item& log, const Selection& selection) {
    const auto isWanted = [&context] {
        int code = 0;
        String status;
        return !context.getFileTransferStatus(code, status);
    };
    if (isWanted())
        writeCsvFile(path, log, selection.startTime, selection.endTime, isWanted);
}

Files exportOne(const RpcContext& context, const Logs& logs, const String& clientPath,
                const Selection& selection) {
    const bool interaction = selection.logType != 0;
    const String local = context.getFileTransferTargetPath(transferName);
    exportFor(context, local, interaction ? logs.interactionLog : logs.auditTrail, selection);
    return {{clientPath + (interaction ? interactionFile : auditFile), local}};
}

/// The framework makes only the folder around a target path. Nothing else notices that this one is missing: the export
/// would write into the void and the transfer find no file.
void makeFolder(const String& path) {
    std::error_code error;
    std::filesystem::create_directory(path.c_str(), error);
    if (error)
        logging::MessageStream(3, 2) << "cannot make the folder " << path
                                     << " for an export: " << error.message();
}

Files exportBoth(const RpcContext& context, const Logs& logs, const String& clientPath,
                 const Selection& selection) {
    const String auditFolder = context.getFileTransferTargetPath(transferName);
    const String interactionFolder = context.getFileTransferTargetPath(transferName);
    makeFolder(auditFolder);
    makeFolder(interactionFolder);
    const String localAudit = auditFolder + auditFile;
    const String localInteraction = interactionFolder + interactionFile;
    // Both as they were at one moment, where the store can do that.
    const SteadyRead moment;
    exportFor(context, localAudit, logs.auditTrail, selection);
    exportFor(context, localInteraction, logs.interactionLog, selection);
    return {{clientPath + auditFile, localAudit}, {clientPath + interactionFile, localInteraction}};
}

/// Called on every event of a download: ends the call once its transfer has ended. The line is written at information
/// level whatever the code: the client, who asked, is told.
bool finishDownload(const RpcContext& context) {
    int code = 0;
    String status;
    if (!context.getFileTransferStatus(code, status))
        return true;
    if (code == 0)
        context.getResult().addBool(true);
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the context lets go of its name when it ends.
    const String name = context.getName();
    context.finish();
    logging::MessageStream(1, 2) << "[RPC:" << name << "] Download of audit report finished, code=" << code
                                 << ", status=" << status;
    return false;
}

/// Bad arguments leave the call open, as clients of all versions expect; the framework ends it after a while.
void downloadAuditReport(const RpcContext& context, const Logs& logs) {
    RpcArguments& arguments = context.getArguments();
    String clientPath;
    Item filter;
    if (!arguments.decodeAsString(clientPath) || !arguments.decodeAsItem(filter))
        return;
    Selection selection;
    arguments.decodeAsBool(selection.both);
    if (!decodeFilter(filter, selection)) {
        logging::MessageStream(3, 2) << "invalid parameters for audit export";
        return;
    }
    const Files files = selection.both ? exportBoth(context, logs, clientPath, selection)
                                       : exportOne(context, logs, clientPath, selection);
    context.initiateFileTransfer(RpcContext::transferToClient, files);
    context.addEventHandler(finishDownload);
}

void getAuditLog(const RpcContext& context, const Logs& logs) {
    RpcArguments& arguments = context.getArguments();
    Selection selection;
    if (!arguments.decodeAsInteger(selection.logType) || !arguments.decodeAsInteger(selection.startTime) ||
        !arguments.decodeAsInteger(selection.endTime) || static_cast<unsigned>(selection.logType) > 1U) {
        logging::MessageStream(3, 2) << "[RPC:" << context.getName() << "] invalid arguments";
        context.finish();
        return;
    }
    context.getResult().addItem(
        AuditExport::getLines(selection.logType == 1 ? logs.interactionLog : logs.auditTrail,
                              selection.startTime, selection.endTime));
    context.finish();
}

}  // namespace

void AuditExport::registerRpcCalls(RpcProvider* provider, const Item& auditTrail,
                                   const Item& interactionLog) {
    const Logs logs{auditTrail, interactionLog};
    provider->groupName = group;
    provider->addRPC(
        downloadName, [logs](const RpcContext& context) { downloadAuditReport(context, logs); },
        downloadSignature, downloadDescription);
    provider->addRPC(
        linesName, [logs](const RpcContext& context) { getAuditLog(context, logs); }, linesSignature,
        linesDescription);
    provider->groupName = nullptr;
}

}  // namespace qel
