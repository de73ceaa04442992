// How long is the coffee break for a usage report? The whole command over two large logs, from their exported text to
// the published page, against the floor: one pass that maps the same files and finds every line and field in them,
// counting nothing. Also what the command holds in memory at most, against the size of the files, and once more for a
// log of a domain, whose user names hold backslashes, so that the guard has to make a cleaned copy.
//
// The logs are shaped after a large site: 60 users, a year, studies of some five series, 60 % of the accesses distinct.
// QEL_BENCH_LINES sets the number of lines of each log. The program qel-audit is expected beside this one.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "support/Figures.h"
#include "support/TemporaryFolder.h"

namespace {

constexpr int rounds = 3;
constexpr int users = 60;
constexpr const char* header =
    "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7\r\n";

/// SplitMix64: the same logs on every machine.
class Random {
  public:
    std::uint64_t below(std::uint64_t bound) {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return (z ^ (z >> 31)) % bound;
    }

  private:
    std::uint64_t state_ = 1;
};

/// Writes one log, line by line in the order of time.
class LogWriter {
  public:
    LogWriter(const std::string& file, long lines, const char* domain)
        : out_(std::fopen(file.c_str(), "wb")), lines_(lines), domain_(domain) {
        std::fputs(header, out_);
    }
    ~LogWriter() { std::fclose(out_); }
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    void interaction(long number) {
        begin(number);
        const std::uint64_t kind = random_.below(100);
        if (kind < 45)
            write("SeriesOpened", uid(random_.below(1000000), random_.below(5)));
        else if (kind < 70)
            write(kind < 58 ? "ViewNextSeries" : "ViewPreviousSeries", uid(random_.below(1000000), 1));
        else if (kind < 80)
            write("ApplicationPacsSearch", "PatientName");
        else if (kind < 88)
            write("QRRetrieve", kind < 84 ? "Series" : "Study");
        else if (kind < 94)
            write("ChatSendMessage", kind < 92 ? "room-17;Text" : "room-17;Study");
        else if (kind < 96)
            write("PDConfirmDone", uid(random_.below(1000000), 0));
        else
            write("PDReviewAssignPhotos", std::to_string(random_.below(12)));
    }

    /// 85 % accesses, of which 60 % differ in user, day or series.
    void audit(long number) {
        begin(number);
        const std::uint64_t kind = random_.below(100);
        if (kind < 85) {
            const bool again = random_.below(100) < 40 && accesses_ > 0;
            const std::uint64_t access =
                again ? accesses_ - 1 - random_.below(std::min(accesses_, recent)) : accesses_++;
            if (again)
                user_ = userOf(access);
            write("DataAccess", uid(access / 5, 9) + ";" + uid(access / 5, access % 5));
        } else if (kind < 90) {
            write("DataShare",
                  uid(random_.below(1000000), 9) + ";somebody;" + (kind < 88 ? "contact" : "weblink"));
        } else {
            write("ConstancyLuxMeter", "412;2");
        }
    }

  private:
    /// How far back somebody looks at the same again; about the accesses of an hour.
    static constexpr std::uint64_t recent = 2000;

    static std::uint64_t userOf(std::uint64_t access) { return access / 40 * 7919 % users; }

    void begin(long number) {
        constexpr long days = 336;  // twelve months of 28
        const long day = number * days / lines_;
        const long second = number % 36000;
        std::snprintf(time_, sizeof time_, "%02ld/%02ld/2025 %02ld:%02ld:%02ld", day / 28 + 1, day % 28 + 1,
                      8 + second / 3600, second / 60 % 60, second % 60);
        user_ = userOf(accesses_ + static_cast<std::uint64_t>(number) * (accesses_ == 0));
    }

    void write(const char* event, const std::string& params) {
        static const char* const names[] = {"anna.schmidt", "b.weber",  "christine.maier", "d.koenig",
                                            "e.hoffmann",   "f.wagner", "gerda.lindner",   "h.bauer"};
        int fields = 0;
        for (const char c : params)
            fields += c == ';';
        std::fprintf(out_, "%s;%s%s%d;reading-room-%d;%s;%s%.*s\r\n", time_, domain_, names[user_ % 8],
                     static_cast<int>(user_), static_cast<int>(user_ % 12), event, params.c_str(), 7 - fields,
                     ";;;;;;;");
    }

    static std::string uid(std::uint64_t study, std::uint64_t series) {
        return "1.2.840.113619.2.55.3." + std::to_string(604000000 + study) + ".971." +
               std::to_string(series);
    }

    FILE* out_;
    long lines_;
    const char* domain_;
    Random random_;
    std::uint64_t accesses_ = 0;
    std::uint64_t user_ = 0;
    char time_[64] = {};
};

struct Logs {
    std::string interaction;
    std::string audit;
    std::uintmax_t bytes() const {
        return std::filesystem::file_size(interaction) + std::filesystem::file_size(audit);
    }
};

Logs writeLogs(const qel::test::TemporaryFolder& folder, const std::string& name, long lines,
               const char* domain) {
    const Logs logs{folder / (name + "-interaction.csv"), folder / (name + "-audit.csv")};
    LogWriter interaction(logs.interaction, lines, domain);
    for (long i = 0; i < lines; ++i)
        interaction.interaction(i);
    LogWriter audit(logs.audit, lines, domain);
    for (long i = 0; i < lines; ++i)
        audit.audit(i);
    return logs;
}

/// Finds every line and field of a file; returns how many, so that nothing is left out.
#if defined(__x86_64__)
__attribute__((target("avx2")))
#endif
std::uint64_t
splitText(const char* text, std::size_t size) {
    std::uint64_t fields = 0;
    std::uint64_t lengths = 0;
    const char* start = text;
    const char* at = text;
    const char* const end = text + size;
    for (; end - at >= 64; at += 64) {
        std::uint64_t ends = 0;
        for (int i = 0; i < 64; i += 32) {
            using Bytes [[gnu::vector_size(32)]] = char;
            Bytes block;
            std::memcpy(&block, at + i, 32);
            const Bytes found = (block == ';') | (block == '\n');
#if defined(__x86_64__)
            ends |= std::uint64_t{static_cast<std::uint32_t>(
                        __builtin_ia32_pmovmskb256(reinterpret_cast<const Bytes&>(found)))}
                    << i;
#else
            for (int j = 0; j < 32; ++j)
                ends |= std::uint64_t{found[j] != 0} << (i + j);
#endif
        }
        for (; ends != 0; ends &= ends - 1) {
            const char* const stop = at + __builtin_ctzll(ends);
            lengths ^= static_cast<std::uint64_t>(stop - start);
            start = stop + 1;
            ++fields;
        }
    }
    for (; at < end; ++at)
        fields += *at == ';' || *at == '\n';
    return fields + (lengths == ~std::uint64_t{0});
}

std::uint64_t splitFile(const std::string& file) {
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const std::size_t size = std::filesystem::file_size(file);
    void* const map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, descriptor, 0);
    close(descriptor);
    const std::uint64_t fields = splitText(static_cast<const char*>(map), size);
    munmap(map, size);
    return fields;
}

/// Processor time in user and system mode: what remains comparable on a machine that does other things too.
double cpuOf(const rusage& usage) {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double cpuOfThisProcess() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cpuOf(usage);
}

struct Run {
    double seconds = 0;
    double cpuSeconds = 0;
    double peakBytes = 0;
};

Run runReport(const std::string& program, const Logs& logs, const std::string& groups,
              const std::string& out) {
    Run run;
    run.seconds = qel::bench::seconds([&] {
        const pid_t child = fork();
        if (child == 0) {
            execl(program.c_str(), program.c_str(), "report", "usage", "--quiet", "--photodoc-details",
                  "--interaction", logs.interaction.c_str(), "--audit", logs.audit.c_str(), "--groups",
                  groups.c_str(), "--out", out.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        rusage usage{};
        wait4(child, &status, 0, &usage);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            std::fprintf(stderr, "%s ended with %d\n", program.c_str(), WEXITSTATUS(status));
            std::exit(1);
        }
        run.cpuSeconds = cpuOf(usage);
        run.peakBytes = static_cast<double>(usage.ru_maxrss) * 1024;
    });
    return run;
}

std::string writeGroups(const qel::test::TemporaryFolder& folder, const char* domain) {
    static const char* const names[] = {"anna.schmidt", "b.weber",  "christine.maier", "d.koenig",
                                        "e.hoffmann",   "f.wagner", "gerda.lindner",   "h.bauer"};
    std::string text;
    for (int user = 0; user < users; ++user)
        text += std::string(domain) + names[user % 8] + std::to_string(user) +
                (user % 3 == 0   ? ";radiology\n"
                 : user % 3 == 1 ? ";radiology;teleradiology\n"
                                 : ";surgery\n");
    return folder.write("groups.txt", text);
}

void measure(const std::string& name, const std::string& program, const qel::test::TemporaryFolder& folder,
             long lines, const char* domain) {
    using namespace qel::bench;
    const Logs logs = writeLogs(folder, name, lines, domain);
    const std::string groups = writeGroups(folder, domain);
    std::vector<double> floors, floorCpus, times, cpus, peaks;
    std::uint64_t fields = 0;
    for (int round = 0; round < rounds; ++round) {
        const double before = cpuOfThisProcess();
        floors.push_back(seconds([&] { fields += splitFile(logs.interaction) + splitFile(logs.audit); }));
        floorCpus.push_back(cpuOfThisProcess() - before);
        const Run run = runReport(program, logs, groups, folder / "out");
        times.push_back(run.seconds);
        cpus.push_back(run.cpuSeconds);
        peaks.push_back(run.peakBytes);
    }
    if (fields < 2 * static_cast<std::uint64_t>(lines) * rounds)
        std::exit(1);
    const double all = 2 * static_cast<double>(lines), bytes = static_cast<double>(logs.bytes());
    print(("usage_report_" + name + "_floor").c_str(), all / median(floors), "lines/s");
    std::printf("usage_report_%s %.0f lines/s ratio=%.2f\n", name.c_str(), all / median(times),
                median(times) / median(floors));
    print(("usage_report_" + name + "_cpu").c_str(), median(cpus) * 1000, "ms", median(floorCpus) * 1000);
    print(("usage_report_" + name + "_peak").c_str(), median(peaks) / 1048576, "MiB", bytes / 1048576);
    std::filesystem::remove(logs.interaction);
    std::filesystem::remove(logs.audit);
}

}  // namespace

int main(int, char** arguments) {
    const long lines = qel::bench::sizeFrom("QEL_BENCH_LINES", 5000000);
    const std::string program = std::filesystem::absolute(arguments[0]).parent_path() / "qel-audit";
    const qel::test::TemporaryFolder folder;
    measure("clean", program, folder, lines, "");
    measure("domain", program, folder, lines, "CLINIC\\");
    return 0;
}
