#include <atomic>
#include <memory>

#include "audit/Commands.h"
#include "common/EventLine.h"
#include "common/Failure.h"
#include "common/LineReader.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/Workstation.h"
#include "qelCore/String.h"

namespace qel::programs {
namespace {

/// Events per write batch: enough to make a commit cheap, few enough for the store to begin while reading goes on.
constexpr std::uint64_t eventsPerBatch = 2000;

/// Puts events into one queue, many to a commit.
class Recorder {
  public:
    explicit Recorder(Workstation& workstation, const std::string& log)
        : store_(workstation.store()), sequence_(workstation.sequence(log)), batch_(&store_) {}

    /// Under the present time.
    void append(const Item& event) {
        requireFit(event);
        sequence_.append(event);
        added();
    }

    /// Under a time of the past, or the next free microsecond behind it.
    void replay(std::int64_t time, const Item& event) {
        requireFit(event);
        if (time > wallClock())
            throw BadEventLine("the time " + formatUtc(time) + " lies in the future");
        // A run of one and the same time goes on behind its last event instead of asking for every place taken.
        std::int64_t at = time == lastAsked_ ? lastTaken_ + 1 : time;
        while (true) {
            Item key = sequence_.getPath();
            key.addInteger(at);
            if (!key.fetch()) {
                key.store(event);
                break;
            }
            ++at;
        }
        lastAsked_ = time;
        lastTaken_ = at;
        added();
    }

    /// Waits until everything is on disk; throws Failure(74) with the reason when it is not.
    void finish() {
        const CommitResult result = batch_.commit();
        const CommitResult flushed = ItemStore::flush();
        if (!result || !flushed)
            throw Failure(exitInputOutput,
                          "not all events could be written: " + (result ? flushed.reason : result.reason));
    }

    std::uint64_t count() const { return count_; }

  private:
    void requireFit(const Item& event) {
        Item key = sequence_.getPath();
        key.addInteger(0);
        std::string reason;
        if (!store_.accepts(key, event.size(), &reason))
            throw BadEventLine(reason);
    }

    void added() {
        ++count_;
        if (count_ % eventsPerBatch != 0)
            return;
        if (failed_->load())
            finish();
        batch_.submit([failed = failed_](const CommitResult& result) {
            if (!result)
                failed->store(true);
        });
    }

    ItemStore& store_;
    AuditSequence& sequence_;
    WriteBatch batch_;
    std::shared_ptr<std::atomic<bool>> failed_ = std::make_shared<std::atomic<bool>>(false);
    std::uint64_t count_ = 0;
    std::int64_t lastAsked_ = INT64_MIN;
    std::int64_t lastTaken_ = INT64_MIN;
};

/// Reads the lines of a file into the queue; a bad line ends it, with all before it kept.
void recordLines(Recorder& recorder, const std::string& file, bool replay, bool quiet) {
    LineReader lines(file);
    Progress progress("recording, bytes:", lines.size(), quiet);
    std::string_view line;
    Item event;
    while (lines.next(line)) {
        try {
            if (replay)
                recorder.replay(readReplayLine(line, event), event);
            else {
                readEventLine(line, event);
                recorder.append(event);
            }
        } catch (const BadEventLine& bad) {
            recorder.finish();
            throw Failure(exitBadData, lines.place() + ": " + bad.what() + "; the " +
                                           grouped(recorder.count()) + " events before it are recorded");
        }
        progress.update(lines.position());
    }
    recorder.finish();
}

void recordOne(Recorder& recorder, const std::vector<std::string>& words) {
    Item event;
    for (const std::string& word : words)
        event.addString(word);
    try {
        recorder.append(event);
    } catch (const BadEventLine& bad) {
        throw Failure(exitBadData, bad.what());
    }
    recorder.finish();
}

}  // namespace

int runRecord(CommandLine& line) {
    std::string config;
    std::string log;
    std::string from;
    bool replay = false;
    std::vector<std::string> words;
    line.describe(
        "Puts events into the local queue, from where 'forward' sends them to the service. They are on disk "
        "when the "
        "command ends well.");
    line.describe(
        "With --from, each line holds one event as a JSON array of strings, 64-bit integers and booleans, "
        "the event's "
        "name first: [\"SeriesOpened\",\"1.2.3\",7,true]. With --replay each line is an object with the time "
        "of an event of "
        "the past: {\"time\":\"2026-03-01T08:00:00.000001+01:00\",\"event\":[…]}; of two events of one time "
        "the second gets "
        "the next free microsecond. Any other line ends the command with exit code 65, with nothing of that "
        "line "
        "recorded.");
    line.requiredText("--config", "FILE", config, "configuration of the workstation");
    line.requiredChoice("--log", log, {"interaction", "audit"}, "which of the two logs");
    line.text("--from", "FILE", from, "read events from a file, or from standard input as -",
              "none, the EVENT of the command line");
    line.flag("--replay", replay, "the events carry their own times");
    line.rest("EVENT", words, "name of one event, followed by its parameters, all taken as texts");
    line.example("qel-audit record --config qel-audit.toml --log interaction SeriesOpened 1.2.3");
    line.example("qel-audit record --config qel-audit.toml --log audit --from events.jsonl");
    if (const auto code = line.parse())
        return *code;
    if (replay && from.empty())
        return line.usageError("--replay needs --from");
    if (from.empty() == words.empty())
        return line.usageError(from.empty() ? "an EVENT or --from is required"
                                            : "EVENT and --from do not go together");

    Output output(line.name(), line.quiet(), line.json());
    Workstation workstation(config, Workstation::Use::work);
    Recorder recorder(workstation, log);
    const Progress clock("", 0, true);
    if (from.empty())
        recordOne(recorder, words);
    else
        recordLines(recorder, from, replay, line.quiet());
    output.message("recorded " + grouped(recorder.count()) + (recorder.count() == 1 ? " event" : " events") +
                   " in the " + log + " queue, " + rateOf(recorder.count(), clock.seconds()));
    output.result().add("recorded", static_cast<std::int64_t>(recorder.count()));
    output.result().add("log", log);
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
