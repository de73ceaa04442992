#include "auditing/AuditExport.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "export/CsvFile.h"
#include "export/CsvLine.h"
#include "export/LogRange.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

/// A new or emptied file to which each line goes whole, with a write of its own, so that whoever finds it after a crash sees
/// lines. Some lines are collected before: making and writing them by turns would cost both a good
/// part of what the processor keeps at hand for them. What comes after a failed line is lost, too: there is no gap.
class LineFile {
  public:
    explicit LineFile(const char* path)
        : handle_(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
          error_(handle_ < 0 ? errno : 0),
          opened_(handle_ >= 0) {}
    ~LineFile() { close(); }
    LineFile(const LineFile&) = delete;
    LineFile& operator=(const LineFile&) = delete;

    void put(std::string_view line) {
        lines_ += line;
        ends_[count_++] = lines_.size();
        if (count_ == ends_.size() || lines_.size() >= collectedBytes)
            flush();
    }
    void close() {
        flush();
        if (handle_ >= 0 && ::close(handle_) != 0 && error_ == 0)
            error_ = errno;
        handle_ = -1;
    }
    /// Of the first failure, as `errno`; 0 for none.
    int error() const { return error_; }
    /// False when what lies at the path, if anything, is not this file's.
    bool wasOpened() const { return opened_; }

  private:
    static constexpr std::size_t collectedBytes = std::size_t{32} << 10;

    void flush() {
        std::size_t start = 0;
        for (unsigned i = 0; i < count_; ++i) {
            write({lines_.data() + start, ends_[i] - start});
            start = ends_[i];
        }
        lines_.clear();
        count_ = 0;
    }
    void write(std::string_view line) {
        while (!line.empty() && error_ == 0) {
            const ssize_t written = ::write(handle_, line.data(), line.size());
            if (written >= 0)
                line.remove_prefix(static_cast<std::size_t>(written));
            else if (errno != EINTR)
                error_ = errno;
        }
    }

    int handle_;
    int error_;
    bool opened_;
    std::string lines_;
    std::array<std::size_t, 32> ends_{};
    unsigned count_ = 0;
};

void tellGivenUp(int level, const char* path, const std::string& reason) {
    logging::MessageStream(level, 2) << "The export to " << path << " was given up: " << reason;
}

/// What ends in the middle of a log must not pass for the whole.
void discard(int level, const char* path, const std::string& reason) {
    tellGivenUp(level, path, reason);
    std::error_code error;
    if (std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error)))
        std::filesystem::remove(path, error);
}

/// Lines between two looks whether anybody still waits for the file: some milliseconds.
constexpr unsigned linesBetweenLooks = 4096;

}  // namespace

void writeCsvFile(const char* path, const Item& log, long long startTime, long long endTime,
                  const std::function<bool()>& isWanted) {
    logging::MessageStream(1, 2) << "Starting export to " << path;
    LineFile file(path);
    file.put(std::string(CsvLine::header) + '\n');
    const SteadyRead moment;
    LogRange range = LogRange::including(log, startTime, endTime);
    CsvLine line;
    bool wanted = true;
    for (unsigned lines = 0; wanted && file.error() == 0 && range.next(); ++lines) {
        line.begin(range.time());
        // Read where it lies: the bytes stay until the next step of the walk.
        line.addFields(Item::Iterator(range.value()));
        line.end();
        file.put(line.text());
        wanted = lines % linesBetweenLooks != 0 || isWanted();
    }
    file.close();
    if (!file.wasOpened())
        tellGivenUp(3, path, std::strerror(file.error()));
    else if (file.error() != 0)
        discard(3, path, std::strerror(file.error()));
    else if (!wanted)
        discard(1, path, "nobody waits for it any more");
    else if (const CommitResult read = moment.result(); !read)
        discard(3, path, read.reason);
}

void AuditExport::exportCSV(const char* path, const Item& log, long long startTime, long long endTime) {
    writeCsvFile(path, log, startTime, endTime, [] { return true; });
}

Item AuditExport::getLines(const Item& log, long long startTimeInclusive, long long endTimeExclusive) {
    Item lines;
    if (log.isEmpty())
        return lines;
    LogRange range = LogRange::excluding(log, startTimeInclusive, endTimeExclusive);
    Item value;
    while (range.next()) {
        if (range.value().isNull())
            continue;
        value.setPlain(range.value());
        Item line = range.position().trail();
        line.concatItem(value);
        lines.addItem(line);
    }
    return lines;
}

const char* AuditExport::csvHeader() {
    return CsvLine::header.data();
}

void AuditExport::appendCsvLine(std::string& text, const Item& line) {
    Item key;
    long long time = 0;
    Item::Iterator elements(line);
    if (elements.decodeElementAsItem(key))
        key.decodeElementAsInteger(time);
    CsvLine made;
    made.begin(time);
    made.addFields(elements);
    made.end();
    text += made.text();
}

unsigned long long AuditExport::countLines(const Item& log, long long startTime, long long endTime,
                                           unsigned long long most) {
    LogRange range = LogRange::including(log, startTime, endTime);
    unsigned long long count = 0;
    while (count <= most && range.next())
        ++count;
    return count;
}

const char* AuditExport::getStaticClassName() {
    return "AuditExport";
}

}  // namespace qel
