#include "audit/WorkDay.h"

#include <algorithm>
#include <cmath>

#include "audit/Random.h"

namespace qel::programs {
namespace {

constexpr std::uint64_t ofWork = 101;
constexpr std::uint64_t ofVisit = 102;

/// How much of what somebody of a role does on a usual day.
struct Habits {
    double readings;   // studies looked through
    double searches;   // queries per study
    double retrieves;  // fetches per study
    double chats;      // messages a day
    double shares;     // shared studies or series a day
    double photodocs;  // photo documentations a day
};

Habits habitsOf(Role role) {
    switch (role) {
        case Role::radiologist:
            return {16, 0.25, 0.20, 5, 1.0, 0.1};
        case Role::resident:
            return {11, 0.35, 0.25, 7, 0.6, 0.4};
        case Role::teleradiologist:
            return {13, 0.15, 0.45, 4, 1.4, 0.0};
        case Role::technician:
            return {4, 0.60, 0.80, 3, 0.8, 1.6};
        case Role::referrer:
            break;
    }
    return {3, 0.50, 0.10, 2, 0.2, 0.5};
}

/// A JSON array under construction: the event's name, then its parameters.
class Event {
  public:
    explicit Event(const char* name) : json_(std::string("[\"") + name + '"') {}
    Event& text(const std::string& value) {
        json_ += ",\"" + value + '"';
        return *this;
    }
    Event& number(int value) {
        json_ += ',' + std::to_string(value);
        return *this;
    }
    Event& flag(bool value) {
        json_ += value ? ",true" : ",false";
        return *this;
    }
    std::string take() { return std::move(json_) + ']'; }

  private:
    std::string json_;
};

/// Writes one day down, step by step.
class Day {
  public:
    Day(const SiteModel& site, int day, Random random, double start)
        : site_(site), day_(day), random_(random), now_(start) {}

    void interaction(Event event) { events_.push_back({now_, false, event.take()}); }
    void audit(Event event) { events_.push_back({now_, true, event.take()}); }
    void wait(double mean) { now_ += random_.pause(mean); }
    void moveTo(double second) { now_ = std::max(now_, second); }
    double now() const { return now_; }
    Random& random() { return random_; }

    /// Looks through one study: its series are opened, stepped through, some of them twice.
    void readStudy(bool guest) {
        const auto [day, study] = pickStudy();
        const std::string uid = site_.studyUid(day, study);
        const int series = guest ? std::min(3, site_.seriesOf(day, study)) : site_.seriesOf(day, study);
        for (int i = 0; i < series; ++i) {
            const std::string seriesUid = site_.seriesUid(day, study, i);
            const char* how = i == 0 || random_.chance(0.35) ? "SeriesOpened"
                              : random_.chance(0.18)         ? "ViewPreviousSeries"
                                                             : "ViewNextSeries";
            interaction(
                Event(how).text(seriesUid).number(random_.between(1, 640)).flag(random_.chance(0.85)));
            audit(Event("DataAccess").text(uid).text(seriesUid).text(guest ? "weblink" : "viewer"));
            if (!guest && random_.chance(0.12))
                interaction(Event("MeasurementDrawn").text(random_.chance(0.7) ? "Distance" : "Angle"));
            wait(guest ? 35 : 22);
        }
    }

    void search() {
        interaction(Event("ApplicationPacsSearch")
                        .text(random_.chance(0.6) ? "PatientName" : "StudyDate")
                        .number(static_cast<int>(random_.pause(14))));
        wait(12);
    }

    void retrieve() {
        const auto [day, study] = pickStudy();
        const bool whole = random_.chance(0.72);
        interaction(Event("QRRetrieve")
                        .text(whole ? "Study" : "Series")
                        .text(whole ? site_.studyUid(day, study) : site_.seriesUid(day, study, 0)));
        wait(15);
    }

    void chat() {
        constexpr const char* kinds[] = {"Text", "Text", "Text", "Text", "Photo", "Audio", "Series", "Study"};
        interaction(Event("ChatSendMessage")
                        .text("chat-" + std::to_string(random_.between(100, 180)))
                        .text(kinds[random_.below(8)]));
        wait(45);
    }

    void share() {
        const auto [day, study] = pickStudy();
        const double kind = random_.share();
        const char* target = kind < 0.5 ? "contact" : kind < 0.75 ? "weblink" : "sendto";
        const int series = random_.chance(0.6) ? site_.seriesOf(day, study) : 1;
        for (int i = 0; i < series; ++i)
            audit(Event("DataShare")
                      .text(site_.studyUid(day, study))
                      .text(site_.seriesUid(day, study, i))
                      .text(target));
        wait(40);
    }

    void photodoc() {
        const int photos = std::max(0, static_cast<int>(random_.around(4, 1.6)));
        for (int i = 0; i < photos; ++i) {
            if (random_.chance(0.7))
                interaction(Event("PDReviewOpenView").number(i));
            if (random_.chance(0.3))
                interaction(Event("PDTaggingUsed").text(random_.chance(0.5) ? "Body region" : "Side"));
            wait(14);
        }
        interaction(Event("PDReviewAssignPhotos").number(photos));
        wait(8);
        interaction(Event("PDConfirmDone").text(random_.chance(0.93) ? "archived" : "local"));
        wait(20);
    }

    /// The monitor check of every workstation each morning, the room's light and the line's speed now and
    /// then.
    void constancy() {
        const bool passed = !random_.chance(0.025);
        const int missing = passed ? -1 : random_.below(5);
        Event check("DailyConstancyCheck");
        for (int i = 0; i < 5; ++i)
            check.text(i == missing ? "" : "1");
        audit(check.text(passed ? "passed" : "failed"));
        wait(60);
        if (random_.chance(0.2)) {
            const int room = random_.between(1, 3);
            audit(Event("ConstancyLuxMeter").number(random_.between(12, 45) * room).number(room));
            wait(30);
        }
        if (random_.chance(0.15)) {
            const bool quick = random_.chance(0.8);
            const int tenths = random_.between(quick ? 21 : 180, quick ? 64 : 410);
            audit(Event("ConstancySpeedTest")
                      .text(quick ? "Quick" : "Detailed")
                      .text(std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10)));
            wait(30);
        }
    }

    std::vector<DayEvent> take() {
        std::stable_sort(events_.begin(), events_.end(),
                         [](const DayEvent& a, const DayEvent& b) { return a.second < b.second; });
        return std::move(events_);
    }

  private:
    struct Study {
        int day;
        int number;
    };

    /// Mostly what came in today or lately, sometimes something old for comparison.
    Study pickStudy() {
        const int back = random_.chance(0.75) ? 0 : static_cast<int>(random_.pause(20));
        const int day = day_ - back;
        return {day, random_.below(site_.studiesOn(day))};
    }

    const SiteModel& site_;
    int day_;
    Random random_;
    double now_;
    std::vector<DayEvent> events_;
};

/// A number of occurrences with the given mean: whole ones, and the fraction by chance.
int times(Random& random, double mean) {
    const double drawn = std::max(0.0, random.around(mean, mean * 0.35));
    const double whole = std::floor(drawn);
    return static_cast<int>(whole) + (random.chance(drawn - whole) ? 1 : 0);
}

/// The day's tasks in mixed order: one letter each.
std::vector<char> tasksOf(Random& random, const Habits& habits, double amount) {
    std::vector<char> tasks;
    const auto add = [&](char task, double mean) {
        tasks.insert(tasks.end(), static_cast<std::size_t>(times(random, mean * amount)), task);
    };
    add('r', habits.readings);
    add('s', habits.readings * habits.searches);
    add('q', habits.readings * habits.retrieves);
    add('c', habits.chats);
    add('d', habits.shares);
    add('p', habits.photodocs);
    for (std::size_t i = tasks.size(); i > 1; --i)
        std::swap(tasks[i - 1], tasks[static_cast<std::size_t>(random.below(static_cast<int>(i)))]);
    return tasks;
}

void perform(Day& day, char task) {
    switch (task) {
        case 'r':
            return day.readStudy(false);
        case 's':
            return day.search();
        case 'q':
            return day.retrieve();
        case 'c':
            return day.chat();
        case 'd':
            return day.share();
        default:
            return day.photodoc();
    }
}

}  // namespace

std::vector<DayEvent> workDay(const SiteModel& site, int person, int day) {
    if (!site.worksOn(person, day))
        return {};
    const Person& who = site.people()[static_cast<std::size_t>(person)];
    Random random =
        Random::of(site.seed(), ofWork, static_cast<std::uint64_t>(person), static_cast<std::uint64_t>(day));
    const double amount = who.diligence * (site.isFreeDay(day) ? 0.4 : 1.0);
    const std::vector<char> tasks = tasksOf(random, habitsOf(who.role), amount);
    const double start = std::max(4.5, random.around(who.startHour, 0.25)) * 3600;
    const double hours = std::max(2.0, (who.endHour - who.startHour) * (site.isFreeDay(day) ? 0.5 : 1.0));
    const double pace = hours * 3600 / static_cast<double>(tasks.size() + 1);

    Day today(site, day, random, start);
    today.audit(Event("UserLogin").text("password"));
    today.interaction(Event("ApplicationStarted").text("viewer"));
    today.wait(40);
    if (site.testsOn(person, day))
        today.constancy();
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        perform(today, tasks[i]);
        // Work spreads over the day, with a pause around noon.
        const double plan = start + pace * static_cast<double>(i + 1);
        today.moveTo(plan > 12.2 * 3600 && plan < 12.9 * 3600 ? 12.9 * 3600 : plan);
    }
    today.moveTo(std::min(start + hours * 3600, 23.5 * 3600));
    today.interaction(Event("ApplicationClosed").text("viewer"));
    today.audit(Event("UserLogout"));
    std::vector<DayEvent> events = today.take();
    // Nobody works past midnight: what a very long day pushed over it did not happen.
    while (!events.empty() && events.back().second >= 24 * 3600)
        events.pop_back();
    return events;
}

std::vector<DayEvent> guestDay(const SiteModel& site, int guest, int day) {
    const Guest& who = site.guests()[static_cast<std::size_t>(guest)];
    const int since = day - who.firstDay;
    // Recipients look at once, and come back in the days after.
    const bool visits = since >= 0 && since % 2 == 0 && since / 2 < who.visits;
    if (!visits)
        return {};
    Random random =
        Random::of(site.seed(), ofVisit, static_cast<std::uint64_t>(guest), static_cast<std::uint64_t>(day));
    Day today(site, day, random, random.around(15, 2) * 3600);
    const int studies = random.between(1, 2);
    for (int i = 0; i < studies; ++i)
        today.readStudy(true);
    return today.take();
}

}  // namespace qel::programs
