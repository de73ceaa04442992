#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>

#include "audit/Commands.h"
#include "audit/SiteModel.h"
#include "audit/WorkDay.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/Output.h"
#include "common/Progress.h"

namespace qel::programs {
namespace {

/// The two files of one identity, written as the days go by.
class IdentityFiles {
  public:
    IdentityFiles(const std::string& folder, std::uint64_t& written)
        : interactionPath_(folder + "/interaction.jsonl"),
          auditPath_(folder + "/audit.jsonl"),
          written_(written) {
        createFolder(folder);
        open(interaction_, interactionPath_);
        open(audit_, auditPath_);
    }

    void add(std::int64_t time, const DayEvent& event) {
        std::ofstream& file = event.audit ? audit_ : interaction_;
        file << "{\"time\":\"" << formatUtc(time) << "\",\"event\":" << event.json << "}\n";
        ++written_;
    }

    void close() {
        close(interaction_, interactionPath_);
        close(audit_, auditPath_);
    }

  private:
    static void open(std::ofstream& file, const std::string& path) {
        file.open(path, std::ios::binary | std::ios::trunc);
        if (!file)
            throw systemFailure(exitCannotCreate, path, errno);
    }
    static void close(std::ofstream& file, const std::string& path) {
        file.close();
        if (!file)
            throw systemFailure(exitInputOutput, path, errno ? errno : EIO);
    }

    std::string interactionPath_;
    std::string auditPath_;
    std::uint64_t& written_;
    std::ofstream interaction_;
    std::ofstream audit_;
};

/// Writes a whole site below one folder.
class SiteWriter {
  public:
    SiteWriter(const SiteModel& site, std::string out, Progress& progress)
        : site_(site), out_(std::move(out)), progress_(progress) {}

    void writePerson(int person) {
        const std::string& user = site_.people()[static_cast<std::size_t>(person)].name;
        std::map<int, std::unique_ptr<IdentityFiles>> devices;
        for (int day = 0; day < site_.days(); ++day) {
            const std::vector<DayEvent> events = workDay(site_, person, day);
            if (events.empty())
                continue;
            const int device = site_.workstationOn(person, day);
            std::unique_ptr<IdentityFiles>& files = devices[device];
            if (!files)
                files = identity(user, site_.workstation(device));
            write(*files, day, events);
        }
        for (auto& [device, files] : devices)
            files->close();
    }

    void writeGuest(int guest) {
        std::unique_ptr<IdentityFiles> files;
        for (int day = 0; day < site_.days(); ++day) {
            const std::vector<DayEvent> events = guestDay(site_, guest, day);
            if (!events.empty() && !files)
                files = identity(site_.guests()[static_cast<std::size_t>(guest)].name, SiteModel::portal());
            if (!events.empty())
                write(*files, day, events);
        }
        if (files)
            files->close();
    }

    const std::string& identities() const { return identities_; }
    std::uint64_t identityCount() const { return identityCount_; }
    std::uint64_t events() const { return events_; }

  private:
    std::unique_ptr<IdentityFiles> identity(const std::string& user, const std::string& device) {
        identities_ += user + ';' + device + '\n';
        ++identityCount_;
        return std::make_unique<IdentityFiles>(out_ + '/' + user + '@' + device, events_);
    }

    void write(IdentityFiles& files, int day, const std::vector<DayEvent>& events) {
        for (const DayEvent& event : events) {
            files.add(site_.timeOn(day, event.second), event);
            progress_.update(events_);
        }
    }

    const SiteModel& site_;
    std::string out_;
    Progress& progress_;
    std::string identities_;
    std::uint64_t identityCount_ = 0;
    std::uint64_t events_ = 0;
};

std::string groupLines(const SiteModel& site) {
    std::string lines;
    for (const Person& person : site.people()) {
        if (person.groups.empty())
            continue;
        lines += person.name;
        for (const std::string& group : person.groups)
            lines += ';' + group;
        lines += '\n';
    }
    return lines;
}

int firstDayOf(const std::optional<TimeSpan>& from, std::int64_t days) {
    constexpr std::int64_t microsecondsPerDay = 86400LL * 1000000;
    // Local midnight lies an hour or two before the date's midnight in UTC.
    constexpr std::int64_t halfDay = microsecondsPerDay / 2;
    if (from)
        return static_cast<int>((from->first + halfDay) / microsecondsPerDay);
    return static_cast<int>(wallClock() / microsecondsPerDay - days);
}

}  // namespace

int runSimulate(CommandLine& line) {
    std::int64_t users = 24;
    std::int64_t workstations = 12;
    std::int64_t days = 90;
    std::int64_t seed = 1;
    std::optional<TimeSpan> from;
    std::string out;
    line.describe(
        "Writes the events of a site that does not exist: people with habits, office hours, weekends and "
        "holidays, "
        "recipients of weblinks, studies and series. DIR gets identities.txt (user;device per line, as "
        "'enroll --list' "
        "takes it), groups.txt (as 'report usage --groups' takes it) and a folder U@D per identity with "
        "interaction.jsonl and audit.jsonl, as 'record --replay' takes them. The same numbers and seed "
        "always give the "
        "same site.");
    line.number("--users", "N", "people", users, 1, 100000, "who works at the site");
    line.number("--workstations", "N", "devices", workstations, 1, 100000, "what they work at");
    line.number("--days", "N", "days", days, 1, 36500, "length of the time");
    line.number("--seed", "S", "", seed, 0, INT64_MAX, "another number, another site");
    line.time("--from", from, "first day, as a date", "so that it ends yesterday");
    line.requiredText("--out", "DIR", out, "folder to write to, created when missing");
    line.example("qel-audit simulate --users 30 --workstations 12 --days 90 --out site");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    createFolder(out);
    const SiteModel site(static_cast<int>(users), static_cast<int>(workstations), static_cast<int>(days),
                         static_cast<std::uint64_t>(seed), firstDayOf(from, days));
    Progress progress("simulating", 0, line.quiet());
    SiteWriter writer(site, out, progress);
    for (int person = 0; person < static_cast<int>(site.people().size()); ++person)
        writer.writePerson(person);
    for (int guest = 0; guest < static_cast<int>(site.guests().size()); ++guest)
        writer.writeGuest(guest);
    replaceFile(out + "/identities.txt", writer.identities());
    replaceFile(out + "/groups.txt", groupLines(site));

    output.message(grouped(writer.events()) + " events of " + grouped(writer.identityCount()) +
                   " identities in " + out + ", " + rateOf(writer.events(), progress.seconds()));
    output.result().add("events", static_cast<std::int64_t>(writer.events()));
    output.result().add("identities", static_cast<std::int64_t>(writer.identityCount()));
    output.result().add("folder", out);
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
