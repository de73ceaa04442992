#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::programs {

/// How somebody works with the system.
enum class Role { radiologist, resident, teleradiologist, technician, referrer };

/// One member of the imagined site. Plain record.
struct Person {
    std::string name;
    Role role = Role::radiologist;
    std::vector<std::string> groups;  // may be empty
    int home = 0;                     // index of the usual workstation
    int away = 0;                     // index of the other one, possibly the same
    double diligence = 1;             // share of the usual amount of work
    double startHour = 8;
    double endHour = 17;
};

/// Somebody outside who looks at what was shared by weblink.
struct Guest {
    std::string name;  // "invite-…"
    int firstDay = 0;  // index of the day of the invitation
    int visits = 1;
};

/// The people, workstations and calendar of an imagined site; everything follows from the numbers and the
/// seed.
class SiteModel {
  public:
    /// `firstDay` counts days since 1970-01-01.
    SiteModel(int users, int workstations, int days, std::uint64_t seed, int firstDay);

    const std::vector<Person>& people() const { return people_; }
    const std::vector<Guest>& guests() const { return guests_; }
    int days() const { return days_; }
    std::uint64_t seed() const { return seed_; }
    std::string workstation(int index) const;
    /// The device that guests come from.
    static const char* portal() { return "weblink-portal"; }

    /// Whether the person is at work on the day (index from 0): working week, holidays, vacations, duty
    /// rosters.
    bool worksOn(int person, int day) const;
    /// Index of the workstation of that day.
    int workstationOn(int person, int day) const;
    /// Whether the person is the first one of the day at the workstation, who does its constancy checks.
    bool testsOn(int person, int day) const;
    /// UTC microseconds of the day's local midnight plus that many seconds of local daytime (from 4 o'clock
    /// on).
    std::int64_t timeOn(int day, double secondsOfDay) const;
    bool isFreeDay(int day) const;

    /// Unique identifiers of the studies that come in on a day, and of their series. Days before the first
    /// are the archive. `study` counts from 0.
    std::string studyUid(int day, int study) const;
    std::string seriesUid(int day, int study, int series) const;
    int studiesOn(int day) const;
    int seriesOf(int day, int study) const;

  private:
    /// The day as the seeds of random numbers take it.
    std::uint64_t dayNumber(int day) const {
        return static_cast<std::uint64_t>(firstDay_ + std::int64_t{day});
    }
    std::string uid(std::uint64_t kind, int day, int study, int series) const;

    int workstations_;
    int days_;
    std::uint64_t seed_;
    int firstDay_;
    std::vector<Person> people_;
    std::vector<Guest> guests_;
    std::vector<std::int64_t> noons_;  // UTC microseconds of each day's local noon
};

}  // namespace qel::programs
