#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "audit/Commands.h"
#include "audit/ReportResources.h"
#include "audit/UserGroups.h"
#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/LargeFile.h"
#include "common/LogGuard.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/ReportFolder.h"
#include "qelCore/logging/Log.h"

namespace qel::programs {
namespace {

/// What both reports are asked for.
struct ReportOptions {
    std::string interaction;
    std::string audit;
    std::string out;
    std::string server;
    std::optional<TimeSpan> from;
    std::optional<TimeSpan> to;
    bool raw = false;
    bool strict = false;

    void declare(CommandLine& line) {
        line.requiredText("--interaction", "FILE", interaction,
                          "exported interaction log: a file, or a pipe with at most 1 GiB");
        line.requiredText("--audit", "FILE", audit, "exported audit log, likewise");
        line.requiredText("--out", "DIR", out, "folder for the page and its three files, made when missing");
        line.time("--from", from, "begin of the period written on the page", "the first dated line");
        line.time("--to", to, "end of that period; nothing is left out by either", "the last dated line");
        line.text("--server", "NAME", server, "name of the server written on the page",
                  "none, its place stays empty");
        line.flag("--raw", raw,
                  "write texts of the logs into the page as they are, markup and scripts included");
        line.flag("--strict", strict, "exit with 1 when a text had to be changed");
    }
};

constexpr std::string_view exportHeader =
    "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7";

/// Whether a text is what an export looks like. Other files are accepted too: people cut logs by hand.
void warnAboutShape(const Output& output, const std::string& file, std::string_view text) {
    constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
    if (text.empty())
        return output.warning(file + ": is empty, nothing in it is counted");
    if (text.starts_with(byteOrderMark))
        text.remove_prefix(byteOrderMark.size());
    std::string_view first = text.substr(0, text.find('\n'));
    if (first.ends_with('\r'))
        first.remove_suffix(1);
    if (first != exportHeader)
        output.warning(file +
                       ": the first line is not the header of an exported log; it is left out as if it were");
    else if (text.find('\n') == std::string_view::npos || text.find('\n') + 1 == text.size())
        output.warning(file + ": holds no event");
}

/// One log, cleaned unless asked for a raw one. Adds its lines to `lines`.
String prepareLog(const std::string& file, const char* name, const ReportOptions& options, LogGuard& guard,
                  const Output& output, std::uint64_t& lines) {
    // The guard looks at each piece while it is still in the processor's cache.
    DangerScan scan;
    String text = readLargeFile(file, [&](std::string_view piece) { scan.look(piece); });
    lines += scan.lines();
    warnAboutShape(output, file, text.view());
    if (!options.raw && scan.foundDanger())
        guard.cleanLog(text, name);
    return text;
}

bool holdsConstancyTests(std::string_view log) {
    for (const std::string_view event : {";DailyConstancyCheck", ";ConstancyLuxMeter", ";ConstancySpeedTest"})
        if (::memmem(log.data(), log.size(), event.data(), event.size()) != nullptr)
            return true;
    return false;
}

/// The two logs and everything else that a report is made from.
class ReportInput {
  public:
    /// `look` is shown both logs before they go to the converter.
    using Look = std::function<void(std::string_view interaction, std::string_view audit)>;

    ReportInput(const ReportOptions& options, const Output& output, const Look& look)
        : options_(options), output_(output) {
        String interaction =
            prepareLog(options.interaction, "interaction log", options, guard_, output, lines_);
        String audit = prepareLog(options.audit, "audit log", options, guard_, output, lines_);
        look(interaction.view(), audit.view());
        converter_.setLogs(std::move(interaction), std::move(audit));
        server_ = options.raw ? options.server : guard_.cleanText(options.server, "server's name");
        choosePeriod();
    }

    void connectGroups(std::unique_ptr<UserGroups> groups) {
        groups_ = std::move(groups);
        converter_.connect([this](const String& user) { return groupsOf(user); });
    }

    AuditCSVtoHtmlReportConverter& converter() { return converter_; }
    const LogGuard& guard() const { return guard_; }
    const std::string& server() const { return server_; }
    std::int64_t start() const { return start_; }
    std::int64_t end() const { return end_; }
    std::uint64_t lines() const { return lines_; }

  private:
    void choosePeriod() {
        UTCDateTime first = wallClock();
        UTCDateTime last = first;
        converter_.coveredPeriod(first, last);
        start_ = options_.from ? options_.from->first : first;
        end_ = options_.to ? options_.to->last : last;
        if (!options_.from && !options_.to)
            return;
        if (const long long outside = converter_.countLinesOutside(start_, end_); outside > 0)
            output_.warning(grouped(static_cast<std::uint64_t>(outside)) +
                            " lines lie outside the period on the page; the report counts them all the same");
    }

    /// The logs hold cleaned names; the host is asked for the original one, and its answer is cleaned in turn.
    List<String> groupsOf(const String& user) {
        if (options_.raw)
            return groups_->groupsOf(user.str());
        List<String> cleaned;
        for (const String& group : groups_->groupsOf(originalText(user.view())))
            cleaned.push_back(guard_.cleanText(group.view(), "group names"));
        return cleaned;
    }

    const ReportOptions& options_;
    const Output& output_;
    LogGuard guard_;
    AuditCSVtoHtmlReportConverter converter_;
    std::unique_ptr<UserGroups> groups_;
    std::string server_;
    std::int64_t start_ = 0;
    std::int64_t end_ = 0;
    std::uint64_t lines_ = 0;
};

/// Tells what was made and what was changed on the way; the exit code that follows from it.
int conclude(Output& output, const ReportOptions& options, const ReportInput& input,
             const std::string& page) {
    const std::uint64_t changed = input.guard().changedTexts();
    if (changed > 0)
        output.warning("replaced characters that could act in a page, in " + grouped(changed) +
                       (changed == 1 ? " text: " : " texts: ") + input.guard().account());
    output.message(page + ": " + grouped(input.lines()) + " lines, " + formatUtc(input.start()) + " to " +
                   formatUtc(input.end()));
    output.result().add("page", page);
    output.result().add("lines", static_cast<std::int64_t>(input.lines()));
    output.result().add("from", formatUtc(input.start()));
    output.result().add("to", formatUtc(input.end()));
    output.result().add("replaced", static_cast<std::int64_t>(changed));
    output.finish();
    return changed > 0 && options.strict ? exitFaultFound : exitDone;
}

/// The library tells every chart that it draws; a person at the command line wants to hear of faults.
void prepareLibrary() {
    logging::setLevel(logging::levelWarning);
    installReportResources();
}

std::unique_ptr<UserGroups> makeGroups(const std::string& source) {
    if (source == "system")
        return std::make_unique<SystemGroups>();
    return std::make_unique<FileGroups>(source.empty() ? std::string() : readTextFile(source));
}

int runUsage(CommandLine& line) {
    ReportOptions options;
    std::string groups;
    bool details = false;
    line.describe(
        "Writes usage_report.html: who used the system, what was viewed, shared and retrieved, month by "
        "month. "
        "Every dated line counts, whatever period is written on the page.");
    line.describe(
        "Characters of the logs that could act in the page (quotes, angle brackets, control and direction "
        "marks, "
        "backslashes) are replaced by look-alikes; how many texts that were, and in which lines, is said at "
        "the "
        "end. --raw leaves them as they are.");
    options.declare(line);
    line.text("--groups", "FILE|system", groups,
              "groups of the users: lines like user;group;group, or the operating system's",
              "none, nobody has a group");
    line.flag("--photodoc-details", details, "three more charts on photo documentation");
    line.example("qel-audit report usage --interaction interaction.csv --audit audit.csv --out report");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    prepareLibrary();
    ReportInput input(options, output, [](std::string_view, std::string_view) {});
    input.connectGroups(makeGroups(groups));
    ReportFolder folder(options.out);
    input.converter().performUsageReport(folder.workPath().c_str(), input.start(), input.end(),
                                         input.server().c_str(), details);
    return conclude(output, options, input, folder.publish("usage_report.html"));
}

int runTeleradiology(CommandLine& line) {
    ReportOptions options;
    line.describe(
        "Writes teleradiology_report.html: the daily constancy checks, lux meter readings and speed tests of "
        "the "
        "audit log. The interaction log must be readable too; an empty file serves.");
    options.declare(line);
    line.example(
        "qel-audit report teleradiology --interaction interaction.csv --audit audit.csv --out report");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    prepareLibrary();
    const ReportInput::Look warnIfSwapped = [&](std::string_view interaction, std::string_view audit) {
        // Constancy tests are written to the audit log only.
        if (holdsConstancyTests(interaction) && !holdsConstancyTests(audit))
            output.warning("the constancy tests stand in " + options.interaction +
                           ", but this report reads the audit log: the two files look swapped");
    };
    ReportInput input(options, output, warnIfSwapped);
    ReportFolder folder(options.out);
    input.converter().performTeleradiologyReport(folder.workPath().c_str(), input.start(), input.end(),
                                                 input.server().c_str());
    return conclude(output, options, input, folder.publish("teleradiology_report.html"));
}

}  // namespace

int runReport(CommandLine& line) {
    static const std::vector<Command> reports{
        {"usage", "charts of who used the system and how", runUsage},
        {"teleradiology", "tables of constancy checks, lux meter readings and speed tests", runTeleradiology},
    };
    return dispatch(line.name(), "Turn exported logs into a report page", reports, line.arguments());
}

}  // namespace qel::programs
