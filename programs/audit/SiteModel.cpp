#include "audit/SiteModel.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "audit/Random.h"
#include "common/Times.h"

namespace qel::programs {
namespace {

// What each independent generator is for.
enum Purpose : std::uint64_t {
    ofPerson = 1,
    ofVacation,
    ofDuty,
    ofDevice,
    ofStudy,
    ofSeries,
    ofUid,
    ofGuest,
    ofIntake
};

constexpr const char* givenNames[] = {"anna",  "jonas",  "lena",    "felix",  "marie",  "paul",
                                      "clara", "david",  "emma",    "tobias", "sophie", "markus",
                                      "julia", "simon",  "jürgen",  "nina",   "katrin", "oliver",
                                      "petra", "stefan", "susanne", "georg",  "miriam", "holger"};
constexpr const char* familyNames[] = {
    "berger", "vogt",   "keller", "brandt",    "seidel", "winter", "lorenz", "arnold", "hartmann", "möller",
    "peters", "krause", "simon",  "engel",     "busch",  "otto",   "kuhn",   "pohl",   "thiel",    "ritter",
    "franke", "jung",   "beck",   "schreiber", "haas",   "sommer", "graf",   "ernst"};

struct RoleShare {
    Role role;
    double share;
    const char* group;
};

// How a hospital with a reading room, referrers and a night service is usually staffed.
constexpr RoleShare roleShares[] = {
    {Role::radiologist, 0.36, "Radiology"},
    {Role::resident, 0.22, "Residents"},
    {Role::teleradiologist, 0.10, "Teleradiology"},
    {Role::technician, 0.16, "Technicians"},
    {Role::referrer, 0.16, "Referrers"},
};
constexpr const char* teams[] = {"Neuro", "Thorax", "Emergency", "Paediatrics"};

struct Day {
    int year;
    int month;
    int day;
};

/// Proleptic Gregorian date of a number of days since 1970-01-01.
Day dateOf(int days) {
    const int shifted = days + 719468;
    const int era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const int dayOfEra = shifted - era * 146097;
    const int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int shiftedMonth = (5 * dayOfYear + 2) / 153;
    const int month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month,
            dayOfYear - (153 * shiftedMonth + 2) / 5 + 1};
}

int daysOf(int year, int month, int day) {
    const int shiftedYear = month <= 2 ? year - 1 : year;
    const int era = (shiftedYear >= 0 ? shiftedYear : shiftedYear - 399) / 400;
    const int yearOfEra = shiftedYear - era * 400;
    const int dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

/// Easter Sunday by the rule of the Gregorian calendar.
int easterOf(int year) {
    const int golden = year % 19;
    const int century = year / 100;
    const int epact = (century - century / 4 - (8 * century + 13) / 25 + 19 * golden + 15) % 30;
    const int moon = epact - (epact / 28) * (1 - (epact / 28) * (29 / (epact + 1)) * ((21 - golden) / 11));
    const int weekday = (year + year / 4 + moon + 2 - century + century / 4) % 7;
    const int offset = moon - weekday;
    const int month = 3 + (offset + 40) / 44;
    return daysOf(year, month, offset + 28 - 31 * (month / 4));
}

/// The holidays that all German states share.
bool isHoliday(int days) {
    const Day date = dateOf(days);
    constexpr std::array<std::array<int, 2>, 5> fixedDays{{{1, 1}, {5, 1}, {10, 3}, {12, 25}, {12, 26}}};
    for (const auto& [month, day] : fixedDays)
        if (date.month == month && date.day == day)
            return true;
    const int fromEaster = days - easterOf(date.year);
    return fromEaster == -2 || fromEaster == 1 || fromEaster == 39 || fromEaster == 50;
}

std::string twoDigits(int day) {
    return (day < 10 ? "0" : "") + std::to_string(day);
}

/// UTC microseconds of local noon, by the same reading of a date as on the command line.
std::int64_t noonOf(int days) {
    const Day date = dateOf(days);
    TimeSpan span;
    std::string error;
    parseTime(std::to_string(date.year) + '-' + twoDigits(date.month) + '-' + twoDigits(date.day), span,
              error);
    constexpr std::int64_t halfDay = 12LL * 3600 * 1000000;
    // On the two days a year when the clocks change, the night is an hour longer or shorter; noon is counted
    // from the end of such a day, which lies behind the change.
    return span.last + 1 - halfDay;
}

Person makePerson(int index, int workstations, std::uint64_t seed) {
    Random random = Random::of(seed, ofPerson, static_cast<std::uint64_t>(index));
    Person person;
    constexpr int given = static_cast<int>(std::size(givenNames));
    constexpr int family = static_cast<int>(std::size(familyNames));
    // Steps without a common divisor walk through all pairs before one comes back.
    const int turn = index / (given * family / 4);
    person.name =
        std::string(givenNames[index % given]) + '.' + familyNames[(index * 5 + index / given) % family];
    if (turn > 0 || index >= given * 7)
        person.name += std::to_string(index);

    double share = random.share();
    for (const RoleShare& row : roleShares) {
        person.role = row.role;
        if (share < row.share || &row == std::end(roleShares) - 1) {
            if (!random.chance(0.08))  // now and then somebody is in no group at all
                person.groups.push_back(row.group);
            break;
        }
        share -= row.share;
    }
    if (!person.groups.empty() && person.role <= Role::teleradiologist && random.chance(0.6))
        person.groups.push_back(teams[random.below(static_cast<int>(std::size(teams)))]);
    person.home = index % workstations;
    person.away = random.chance(0.12) ? random.below(workstations) : person.home;
    person.diligence = random.around(1.0, 0.22);
    person.startHour = random.around(person.role == Role::teleradiologist ? 14.0 : 7.75, 0.4);
    person.endHour = person.startHour + random.around(8.75, 0.4);
    return person;
}

}  // namespace

SiteModel::SiteModel(int users, int workstations, int days, std::uint64_t seed, int firstDay)
    : workstations_(workstations), days_(days), seed_(seed), firstDay_(firstDay) {
    for (int i = 0; i < users; ++i)
        people_.push_back(makePerson(i, workstations, seed));
    for (int day = 0; day < days; ++day)
        noons_.push_back(noonOf(firstDay + day));
    const int guests = days > 1 ? std::clamp(users / 5, 2, 60) : 1;
    for (int i = 0; i < guests; ++i) {
        Random random = Random::of(seed, ofGuest, static_cast<std::uint64_t>(i));
        guests_.push_back({"invite-" + std::to_string(4000 + 37 * i + random.below(37)), random.below(days),
                           random.between(1, 4)});
    }
}

std::string SiteModel::workstation(int index) const {
    return "ws-" + std::string(index < 9 ? "0" : "") + std::to_string(index + 1);
}

bool SiteModel::isFreeDay(int day) const {
    const int weekday = ((firstDay_ + day) % 7 + 7 + 3) % 7;  // 1970-01-01 was a Thursday; Monday is 0
    return weekday >= 5 || isHoliday(firstDay_ + day);
}

bool SiteModel::worksOn(int person, int day) const {
    const auto who = static_cast<std::uint64_t>(person);
    Random week = Random::of(seed_, ofVacation, who, static_cast<std::uint64_t>((firstDay_ + day) / 7));
    if (week.chance(0.11))  // about six weeks of vacation and courses a year
        return false;
    Random duty = Random::of(seed_, ofDuty, who, dayNumber(day));
    const Role role = people_[static_cast<std::size_t>(person)].role;
    if (isFreeDay(day))
        return duty.chance(role == Role::teleradiologist ? 0.45 : role == Role::referrer ? 0.03 : 0.14);
    return duty.chance(role == Role::referrer ? 0.7 : 0.93);
}

int SiteModel::workstationOn(int person, int day) const {
    const Person& who = people_[static_cast<std::size_t>(person)];
    Random random =
        Random::of(seed_, ofDevice, static_cast<std::uint64_t>(person), static_cast<std::uint64_t>(day));
    return random.chance(0.3) ? who.away : who.home;
}

bool SiteModel::testsOn(int person, int day) const {
    if (!worksOn(person, day))
        return false;
    const int device = workstationOn(person, day);
    for (int earlier = 0; earlier < person; ++earlier)
        if (worksOn(earlier, day) && workstationOn(earlier, day) == device)
            return false;
    return true;
}

std::int64_t SiteModel::timeOn(int day, double secondsOfDay) const {
    constexpr double noon = 12.0 * 3600;
    return noons_[static_cast<std::size_t>(day)] + static_cast<std::int64_t>((secondsOfDay - noon) * 1e6);
}

int SiteModel::studiesOn(int day) const {
    Random random = Random::of(seed_, ofIntake, dayNumber(day));
    const int usual = std::max(6, static_cast<int>(people_.size()) * 4);
    return std::max(3, static_cast<int>(random.around(isFreeDay(day) ? usual * 0.3 : usual, usual * 0.06)));
}

int SiteModel::seriesOf(int day, int study) const {
    Random random = Random::of(seed_, ofSeries, dayNumber(day), static_cast<std::uint64_t>(study));
    return random.chance(0.3) ? random.between(1, 2) : random.between(3, 9);
}

std::string SiteModel::uid(std::uint64_t kind, int day, int study, int series) const {
    // Identifiers below 2.25 need no registered root: what follows is a random number of up to 128 bits.
    Random random = Random::of(seed_ ^ (kind * 0xA24BAED4963EE407u), dayNumber(day),
                               static_cast<std::uint64_t>(study), static_cast<std::uint64_t>(series));
    std::string text = "2.25.";
    text += std::to_string(1 + random.next() % 339999999999999999u);
    std::string tail = std::to_string(random.next());
    return text + std::string(20 - tail.size(), '0') + tail;
}

std::string SiteModel::studyUid(int day, int study) const {
    return uid(ofStudy, day, study, 0);
}

std::string SiteModel::seriesUid(int day, int study, int series) const {
    return uid(ofUid, day, study, series);
}

}  // namespace qel::programs
