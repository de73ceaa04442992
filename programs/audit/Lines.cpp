#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "audit/AuditorLink.h"
#include "audit/Commands.h"
#include "audit/LineText.h"
#include "audit/RangeSlices.h"
#include "auditing/AuditExport.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/RemoteCalls.h"

namespace qel::programs {
namespace {

/// Writes lines to standard output as they come.
class LinePrinter {
  public:
    explicit LinePrinter(bool json) : json_(json) {
        if (!json_)
            text_ = std::string(AuditExport::csvHeader()) + '\n';
    }

    /// The lines of one answer; returns how many.
    std::uint64_t print(const Item& result) {
        const std::uint64_t count = forEachLine(result, [this](ConstByteSpan line) { add(line); });
        flush();
        return count;
    }

    void flush() {
        const std::size_t written = std::fwrite(text_.data(), 1, text_.size(), stdout);
        if (written != text_.size() || std::fflush(stdout) != 0)
            throw systemFailure(exitInputOutput, "standard output", errno);
        text_.clear();
    }

  private:
    // Written in pieces, so that an answer does not lie in memory a second time as text.
    static constexpr std::size_t piece = std::size_t{1} << 20;

    void add(ConstByteSpan line) {
        if (json_) {
            appendJsonLine(text_, line);
        } else {
            item_.setPlain(line);
            AuditExport::appendCsvLine(text_, item_);
        }
        if (text_.size() >= piece)
            flush();
    }

    bool json_;
    Item item_;
    std::string text_;
};

RpcRequest requestFor(const std::string& log, const RangeSlices::Slice& slice) {
    RpcRequest request;
    request.name = linesCall;
    request.arguments.addInteger(log == "interaction" ? 1 : 0);
    request.arguments.addInteger(slice.start);
    request.arguments.addInteger(slice.end);
    request.largestRows = RangeSlices::mostRows;
    return request;
}

std::uint64_t fetchAll(AuditorLink& link, const std::string& log, RangeSlices& slices, LinePrinter& printer,
                       bool quiet) {
    Progress progress("fetching", 0, quiet);
    std::uint64_t rows = 0;
    RangeSlices::Slice slice;
    while (slices.next(slice)) {
        const RpcReply reply = link.call(requestFor(log, slice), {});
        if (reply.error == RpcError::resultTooLarge && slices.halve())
            continue;
        if (!reply)
            throw failureOf(reply);
        const std::uint64_t count = printer.print(reply.result);
        slices.done(count);
        rows += count;
        progress.update(rows);
    }
    printer.flush();
    return rows;
}

}  // namespace

int runLines(CommandLine& line) {
    std::string config;
    std::string log = "interaction";
    std::string format;
    std::optional<TimeSpan> from;
    std::optional<TimeSpan> to;
    line.describe(
        "Fetches the lines of a time range of a central log and prints them: as semicolon-separated text "
        "with a header "
        "and German local time, or as JSON Lines with UTC time. The instant of --to is excluded; a day, "
        "month, quarter "
        "or year means all of it. A long range is fetched in slices. Needs the auditor's role at the "
        "service, and "
        "leaves an event in its audit trail for each slice.");
    line.requiredText("--config", "FILE", config, "configuration of the workstation");
    line.requiredTime("--from", from, "first time, included");
    line.requiredTime("--to", to, "end, not included");
    line.choice("--log", log, {"interaction", "audit"}, "which log");
    line.choice("--format", format, {"csv", "jsonl"}, "semicolon-separated text or JSON Lines",
                "csv, with --json jsonl");
    line.example("qel-audit lines --config anna.toml --log audit --from 2026-03 --to 2026-03");
    if (const auto code = line.parse())
        return *code;
    const std::int64_t end = endOf(*to);
    if (from->first > end)
        return line.usageError("--from lies behind --to");

    const ServiceManager manager;
    setUpCommandLog();
    const Output output(line.name(), line.quiet(), line.json());
    LinePrinter printer(format.empty() ? line.json() : format == "jsonl");
    RangeSlices slices(from->first, end);
    AuditorLink link(config, manager);
    const Progress clock("", 0, true);
    const std::uint64_t rows = fetchAll(link, log, slices, printer, line.quiet());
    output.message("fetched " + grouped(rows) + (rows == 1 ? " line, " : " lines, ") +
                   rateOf(rows, clock.seconds()));
    return exitDone;
}

}  // namespace qel::programs
