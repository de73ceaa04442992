#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>

#include "audit/AuditorLink.h"
#include "audit/Commands.h"
#include "auditing/AuditExport.h"
#include "common/CsvCheck.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/RemoteCalls.h"
#include "qelCore/Item.h"

namespace qel::programs {
namespace {

/// What a download asks for.
struct Wanted {
    std::string into;
    std::string log = "both";
    TimeSpan from;
    TimeSpan to;
};

/// The folder as the service repeats it before its file names: absolute, without "/" at its end.
std::string folderPath(const std::string& folder) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(folder, error).lexically_normal();
    if (error)
        throw Failure(exitCannotCreate, folder + ": " + error.message());
    std::string text = path.string();
    while (!text.empty() && text.back() == '/')
        text.pop_back();
    const auto status = std::filesystem::status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_directory(status))
        throw systemFailure(exitCannotCreate, folder, ENOTDIR);
    return text;
}

RpcRequest requestFor(const Wanted& wanted) {
    Item filter;
    filter.addInteger(wanted.log == "interaction" ? 1 : 0);
    filter.addInteger(wanted.from.first);
    filter.addInteger(wanted.to.last);
    RpcRequest request;
    request.name = downloadCall;
    request.arguments.addString(wanted.into);
    request.arguments.addItem(filter);
    request.arguments.addBool(wanted.log == "both");
    request.createFolders = true;
    if (wanted.log != "interaction")
        request.targets.push_back(wanted.into + auditFileName);
    if (wanted.log != "audit")
        request.targets.push_back(wanted.into + interactionFileName);
    return request;
}

bool saysTrue(const Item& result) {
    bool done = false;
    Item::Iterator elements(result);
    return elements.decodeElementAsBool(done) && done;
}

/// The bar: what the service has prepared so far, then what has arrived.
class DownloadProgress {
  public:
    explicit DownloadProgress(bool quiet)
        : quiet_(quiet), bar_(std::make_unique<Progress>("preparing", 0, quiet)) {}

    bool update(const RpcProgress& state) {
        if (state.transferring && !transferring_) {
            transferring_ = true;
            bar_ = nullptr;
            bar_ = std::make_unique<Progress>("downloading", state.total, quiet_);
        }
        bar_->update(transferring_ ? state.bytes : state.preparedBytes);
        return true;
    }

  private:
    bool quiet_;
    bool transferring_ = false;
    std::unique_ptr<Progress> bar_;
};

/// Looks whether a file is what was promised, and says how much it holds.
void report(const RpcFile& file, Output& output, std::vector<JsonObject>& results) {
    const FileFacts found = measureFile(file.path);
    if (!found.headed || found.bytes != file.bytes || !found.ended)
        throw Failure(exitInputOutput, file.path + ": is not whole, expected an export of " +
                                           grouped(file.bytes) + " bytes that begins with the header");
    output.message(file.path + ": " + grouped(found.lines - 1) + (found.lines == 2 ? " line, " : " lines, ") +
                   grouped(found.bytes) + " bytes");
    if (found.oddLines > 0)
        output.warning(
            file.path + ": " + grouped(found.oddLines) +
            " lines do not have the 12 fields of the header; values with \";\" or line breaks, or events of "
            "many parameters, shift columns there");
    JsonObject result;
    result.add("file", file.path);
    result.add("lines", static_cast<std::int64_t>(found.lines));
    result.add("bytes", static_cast<std::int64_t>(found.bytes));
    result.add("oddLines", static_cast<std::int64_t>(found.oddLines));
    results.push_back(result);
}

}  // namespace

int runDownload(CommandLine& line) {
    std::string config;
    std::string into;
    Wanted wanted;
    std::optional<TimeSpan> from;
    std::optional<TimeSpan> to;
    line.describe(
        "Fetches a time range of the central logs as semicolon-separated files, audit_export.csv and "
        "constancy_export.csv (the interaction log). Both ends of the range are included; a day, month, "
        "quarter or "
        "year means all of it. The files take their names when they are whole and their SHA-256 is right; a "
        "download "
        "that fails leaves nothing. Needs the auditor's role at the service, and leaves an event in its "
        "audit trail.");
    line.requiredText("--config", "FILE", config, "configuration of the workstation");
    line.requiredTime("--from", from, "first time, included");
    line.requiredTime("--to", to, "last time, included");
    line.choice("--log", wanted.log, {"interaction", "audit", "both"}, "which log");
    line.requiredText("--into", "DIR", into, "folder for the files, made when missing");
    line.example("qel-audit download --config anna.toml --from 2026-Q1 --to 2026-Q1 --into logs");
    if (const auto code = line.parse())
        return *code;
    if (from->first > to->last)
        return line.usageError("--from lies behind --to");

    const ServiceManager manager;
    setUpCommandLog();
    Output output(line.name(), line.quiet(), line.json());
    wanted.into = folderPath(into);
    wanted.from = *from;
    wanted.to = *to;
    RpcReply reply;
    {
        AuditorLink link(config, manager);
        DownloadProgress progress(line.quiet());
        reply =
            link.call(requestFor(wanted), [&](const RpcProgress& state) { return progress.update(state); });
    }
    if (!reply)
        throw failureOf(reply);
    if (!saysTrue(reply.result))
        throw Failure(exitTemporary, "the service did not say that the download succeeded");
    std::vector<JsonObject> results;
    for (const RpcFile& file : reply.files)
        report(file, output, results);
    output.result().add("files", results);
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
