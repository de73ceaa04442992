#include "auditing/AuditExport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "audit/Commands.h"
#include "common/CentralStore.h"
#include "common/CsvCheck.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/Output.h"
#include "common/Progress.h"

namespace qel::programs {
namespace {

/// A file that takes its name when it is whole; what is left of a failed attempt goes.
class NewFile {
  public:
    explicit NewFile(std::string file) : file_(std::move(file)) {
        const std::filesystem::path parent = std::filesystem::path(file_).parent_path();
        if (!parent.empty())
            createFolder(parent.string());
        std::error_code error;
        const auto status = std::filesystem::status(file_, error);
        if (std::filesystem::is_directory(status))
            throw systemFailure(exitCannotCreate, file_, EISDIR);
        // A device or a pipe is written to as it is.
        direct_ = std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
        if (!direct_)
            requireWritable();
    }
    ~NewFile() {
        if (!direct_ && !done_)
            ::unlink(path().c_str());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    bool isDirect() const { return direct_; }
    std::string path() const { return direct_ ? file_ : file_ + ".part"; }

    void finish() {
        if (!direct_ && ::rename(path().c_str(), file_.c_str()) != 0)
            throw systemFailure(exitCannotCreate, file_, errno);
        done_ = true;
    }

  private:
    void requireWritable() const {
        if (FILE* file = std::fopen(path().c_str(), "we"); file)
            std::fclose(file);
        else
            throw systemFailure(exitCannotCreate, file_, errno);
    }

    std::string file_;
    bool direct_ = false;
    bool done_ = false;
};

/// Takes what is exported to a device or a pipe through a pipe of its own, to see whether it got there.
class Passage {
  public:
    explicit Passage(const std::string& file) : file_(file) {
        const int out = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
        if (out < 0)
            throw systemFailure(exitCannotCreate, file, errno);
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            ::close(out);
            throw systemFailure(exitInputOutput, file, errno);
        }
        in_ = ends[1];
        thread_ = std::thread([this, from = ends[0], out] { pass(from, out); });
    }
    ~Passage() { end(); }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;

    std::string path() const { return "/dev/fd/" + std::to_string(in_); }

    /// Nothing more comes; throws Failure(74) when not all of it could be written.
    void finish() {
        end();
        if (error_ != 0)
            throw systemFailure(exitInputOutput, file_, error_);
    }

  private:
    void end() {
        if (!thread_.joinable())
            return;
        ::close(in_);
        thread_.join();
    }
    // After an error the rest is taken all the same: whoever writes must come to an end.
    void pass(int from, int out) {
        std::vector<char> piece(1 << 16);
        ssize_t count = 0;
        while ((count = ::read(from, piece.data(), piece.size())) > 0 || (count < 0 && errno == EINTR)) {
            for (ssize_t done = 0; done < count && error_ == 0;) {
                const ssize_t written =
                    ::write(out, piece.data() + done, static_cast<std::size_t>(count - done));
                if (written >= 0)
                    done += written;
                else if (errno != EINTR)
                    error_ = errno;
            }
        }
        ::close(from);
        if (::close(out) != 0 && error_ == 0)
            error_ = errno;
    }

    std::string file_;
    int in_ = -1;
    int error_ = 0;
    std::thread thread_;
};

/// Draws how far a file has grown while another thread's work writes it.
class GrowthBar {
  public:
    GrowthBar(std::string file, std::uint64_t expected, bool quiet) {
        if (!Progress::isShown(quiet))
            return;
        thread_ = std::thread([this, path = std::move(file), expected] {
            Progress progress("writing, bytes:", expected, false);
            std::unique_lock lock(mutex_);
            while (!done_.wait_for(lock, std::chrono::milliseconds(200), [this] { return ended_; })) {
                std::error_code error;
                const std::uintmax_t size = std::filesystem::file_size(path, error);
                progress.show(error ? 0 : size);
            }
        });
    }
    ~GrowthBar() {
        if (!thread_.joinable())
            return;
        {
            const std::lock_guard lock(mutex_);
            ended_ = true;
        }
        done_.notify_all();
        thread_.join();
    }
    GrowthBar(const GrowthBar&) = delete;
    GrowthBar& operator=(const GrowthBar&) = delete;

  private:
    std::mutex mutex_;
    std::condition_variable done_;
    bool ended_ = false;
    std::thread thread_;
};

RangeFacts countFirst(const Item& log, const TimeSpan& from, const TimeSpan& to, bool quiet) {
    Progress progress("counting", 0, quiet);
    return measureRange(log, from.first, to.last, [&](std::uint64_t done) { progress.update(done); });
}

/// Looks whether the file is what was promised: the header, each event, and the line breaks inside values. While the
/// log grows, what it held before and after the writing are the bounds.
FileFacts checkExport(const std::string& file, const Item& log, const TimeSpan& from, const TimeSpan& to,
                      const RangeFacts& before) {
    const FileFacts found = measureFile(file);
    if (!found.headed)
        throw Failure(exitInputOutput, file + ": does not begin with the header, the export failed");
    if (found.lines == before.lines())
        return found;
    const RangeFacts after = measureRange(log, from.first, to.last);
    if (found.lines < before.lines() || found.lines > after.lines())
        throw Failure(exitInputOutput, file + ": holds " + grouped(found.lines) + " lines, expected " +
                                           grouped(before.lines()) + " to " + grouped(after.lines()) +
                                           "; the export failed");
    return found;
}

}  // namespace

int runExport(CommandLine& line) {
    std::string url;
    std::string log;
    std::string out;
    std::optional<TimeSpan> from;
    std::optional<TimeSpan> to;
    line.describe(
        "Writes the events of a time range as semicolon-separated text, times in German local time, nothing "
        "quoted. Both ends of the range are included; a day, month, quarter or year means all of it. The "
        "store "
        "must lie on this machine and may be in use. An event in the audit trail tells who exported what.");
    line.requiredText("--store", "URL", url, "lmdb:PATH or postgresql://…");
    line.requiredChoice("--log", log, {"interaction", "audit"}, "which of the two logs");
    line.requiredTime("--from", from, "first time, included");
    line.requiredTime("--to", to, "last time, included");
    line.requiredText("--out", "FILE", out, "file to write, replaced when it exists");
    line.example(
        "qel-audit export --store lmdb:store --log audit --from 2026-Q1 --to 2026-Q1 --out audit.csv");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    CentralStore central(url);
    const StoreLog target = central.centralLog(log);
    central.centralLog("audit");
    central.requireTrace();
    NewFile file(out);

    const Progress clock("", 0, true);
    const SteadyRead moment(&central.store());
    const RangeFacts expected = countFirst(target.path, *from, *to, line.quiet());
    {
        const GrowthBar bar(file.path(), expected.bytes, line.quiet());
        if (file.isDirect()) {
            Passage passage(out);
            AuditExport::exportCSV(passage.path().c_str(), target.path, from->first, to->last);
            passage.finish();
        } else {
            AuditExport::exportCSV(file.path().c_str(), target.path, from->first, to->last);
        }
    }
    if (const CommitResult read = moment.result(); !read)
        throw Failure(central.store().statistics().reachable ? exitInputOutput : exitTemporary,
                      read.reason + "; the export failed");
    if (!file.isDirect() && !std::filesystem::exists(file.path()))
        throw Failure(exitInputOutput, out +
                                           ": could not be written to its end; the export failed, and the "
                                           "line before says why");
    FileFacts found{0, expected.lines(), true};
    if (!file.isDirect())
        found = checkExport(file.path(), target.path, *from, *to, expected);
    const std::uint64_t rows = found.lines - 1 - expected.lineBreaks;
    central.leaveTrace("export", log, from->first, to->last, rows, found.bytes);
    file.finish();

    output.message("wrote " + grouped(rows) + (rows == 1 ? " event to " : " events to ") + out + ", " +
                   rateOf(rows, clock.seconds()));
    if (const std::string shifts = describeShifts(expected); !shifts.empty())
        output.warning(shifts);
    output.result().add("events", static_cast<std::int64_t>(rows));
    output.result().add("lines", static_cast<std::int64_t>(found.lines));
    output.result().add("bytes", static_cast<std::int64_t>(found.bytes));
    output.result().add("shiftingValues", static_cast<std::int64_t>(expected.shiftingValues));
    output.result().add("file", out);
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
