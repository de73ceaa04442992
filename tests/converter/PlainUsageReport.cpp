#include "converter/PlainUsageReport.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "auditing/HtmlReportGenerator.h"
#include "converter/LogLine.h"
#include "qelCore/util/DateConversion.h"
#include "qelCore/util/StringFormat.h"

namespace qel::test {

namespace {

const std::string from = " over the specified time period.<br>";
const std::string interaction = "The information is gathered from the interaction log.";
const std::string audit = "The information is gathered from the audit log.";
const std::string onePerDay = "Only one occurence per day for a series or study is counted.<br>";

int place(Vector<String>& labels, const String& name) {
    const auto found = std::find(labels.begin(), labels.end(), name);
    if (found != labels.end())
        return static_cast<int>(found - labels.begin());
    labels.push_back(name);
    return static_cast<int>(labels.size()) - 1;
}

bool isOneOf(const String& text, std::initializer_list<const char*> choices) {
    return std::any_of(choices.begin(), choices.end(), [&](const char* choice) { return text == choice; });
}

class Plain {
  public:
    Plain(const Delegate<List<String>(const String&)>& groups, bool details)
        : delegate_(groups), details_(details) {}

    void interactionLine(const LogLine& line) {
        const List<String> groups = groupsOf(line.reportUser);
        if (!line.dateValid)
            return;
        const int month = line.month, year = line.year;
        if (line.reportUser == "Weblink") {
            c3.increaseByOneOnlyOnceInMonth(month, year, line.user.c_str(), 0);
        } else {
            const String key = line.user + util::stringFormat("-%d-%d-%d", month, year, line.day);
            c4.increaseByOneOnlyOnce(line.reportUser.c_str(), key.c_str(), 0);
            c1.increaseByOneOnlyOnceInMonth(month, year, line.reportUser.c_str(), 0);
            for (const String& group : groups.empty() ? List<String>{"No group"} : groups)
                c2.increaseByOneOnlyOnceInMonth(month, year, line.reportUser.c_str(),
                                                place(groupLabels, group));
        }
        if (isOneOf(line.event, {"SeriesOpened", "ViewPreviousSeries", "ViewNextSeries"}))
            c5.increaseByOne(month, year, 0);
        if (line.event == "ApplicationPacsSearch")
            c12.increaseByOne(month, year, 0);
        if (line.event == "QRRetrieve" && !line.params.empty() &&
            isOneOf(line.params[0], {"Series", "Study"}))
            c13.increaseByOne(month, year, line.params[0] == "Series" ? 0 : 1);
        if (line.event == "ChatSendMessage" && line.params.size() > 1) {
            if (isOneOf(line.params[1], {"Series", "Study"}))
                c14.increaseByOne(month, year, 1);
            if (isOneOf(line.params[1], {"Audio", "Photo", "Text"}))
                c14.increaseByOne(month, year, 0);
        }
        if (line.event == "PDConfirmDone") {
            c15.increaseByOne(month, year, 0);
            c16.increaseByOne(month, year, place(photodocUsers, line.reportUser));
        }
        if (details_)
            detailLine(line);
    }

    void auditLine(const LogLine& line) {
        const List<String> groups = groupsOf(line.reportUser);
        if (!line.dateValid)
            return;
        const int month = line.month, year = line.year;
        if (line.event == "DataAccess" && line.params.size() >= 2) {
            const String day = util::stringFormat("-%d-", line.day);
            const String series = day + line.params[1], study = day + line.params[0];
            const String& user = line.reportUser;
            c6.increaseByOneOnlyOnceInMonth(month, year, (user + series).c_str(), 0);
            c6.increaseByOneOnlyOnceInMonth(month, year, (user + study).c_str(), 1);
            c7.increaseByOneOnlyOnce(user.c_str(), series.c_str(), 0);
            c7.increaseByOneOnlyOnce(user.c_str(), study.c_str(), 1);
            c9.increaseByOneOnlyOnceInMonth(month, year, series.c_str(), place(viewers, user));
            for (const String& group : groups) {
                c8.increaseByOneOnlyOnce(group.c_str(), (user + series).c_str(), 0);
                c8.increaseByOneOnlyOnce(group.c_str(), (user + study).c_str(), 1);
            }
        }
        if (line.event == "DataShare" && line.params.size() >= 3 &&
            isOneOf(line.params[2], {"contact", "weblink", "sendto"})) {
            const int series = line.params[2] == "contact" ? 0 : line.params[2] == "weblink" ? 1 : 2;
            c10.increaseByOne(month, year, series);
            c11.increaseByOneOnlyOnceInMonth(month, year, line.params[0].c_str(), series);
        }
    }

    void addCharts(HtmlReportGenerator& page) {
        const std::string n = "This diagram visualizes the number of ";
        const Vector<String> both = {"Series", "Studies"}, targets = {"Contact", "Weblink", "AET"};
        const auto add = [&](const char* title, const Vector<String>& keys, EventStatistic& counter,
                             const std::string& text) { page.addBarchart(title, keys, counter, text, 5); };
        add("Active users per month", {"Users"}, c1, n + "active users per month" + from + interaction);
        add("Active users in group per month", groupLabels, c2,
            n + "active users per group per month" + from + interaction);
        add("Active weblink users per month", {"Users"}, c3,
            n + "active weblink users per month" + from + interaction);
        add("Active users", {"Days active"}, c4,
            "This diagram visualizes how many days users were active" + from + interaction);
        add("Series viewed per month", {"Series"}, c5, n + "series viewed" + from + interaction);
        add("Series and Studies viewed per month", both, c6,
            n + "series and studies viewed per month" + from + onePerDay + audit);
        add("Series and Studies viewed per user", both, c7,
            n + "series and studies viewed per user" + from + onePerDay + audit);
        add("Series and Studies viewed per group", both, c8,
            n + "series and studies viewed per group" + from + onePerDay + audit);
        add("Series and Studies viewed per user per month", viewers, c9,
            n + "series and studies viewed per user per month" + from + onePerDay + audit);
        add("Series shared per month", targets, c10,
            n + "series shared per month to a target" + from + audit);
        add("Studies shared per month", targets, c11,
            n + "studies shared per month to a target" + from + audit);
        add("Queries per month", {"Queries"}, c12, n + "queries to a PACS performed" + from + interaction);
        add("Series and Studies retrieved per month", both, c13,
            n + "retrieves from a PACS performed" + from + interaction);
        add("Chat messages written per month", {"Messages", "Shares"}, c14,
            n + "chat and share messages sent" + from +
                "Chat messages include text, photo and audio messages.<br>" + interaction);
        add("Photodocs performed per month", {"Photodocs done"}, c15,
            n + "completed photodoc workflows per month" + from + interaction);
        add("Photodocs performed per user per month", photodocUsers, c16,
            n + "of completed photodoc workflows per user per month" + from + interaction);
        if (!details_)
            return;
        add("Assigned photos per photodoc per month", photoCounts, c17,
            n + "assigned photos per photodoc per month" + from + interaction);
        add("Photodoc tagging used per month", {"Photodoc tagging used"}, c18,
            n + "used of tagging functionality in photodoc per month" + from + interaction);
        add("Photodoc photos viewed per month", {"Photodoc photos viewed"}, c19,
            n + "photos viewed in photodoc per month" + from + interaction);
    }

  private:
    void detailLine(const LogLine& line) {
        if (line.event == "PDReviewAssignPhotos" && !line.params.empty()) {
            std::istringstream in(line.params[0].str());
            int photos = 0;
            in >> photos;  // beyond an int it becomes the nearest one, and nothing readable becomes 0
            if (photos >= 0 && photos <= 10000) {
                while (static_cast<int>(photoCounts.size()) < photos + 1)
                    photoCounts.push_back(std::to_string(photoCounts.size()));
                c17.increaseByOne(line.month, line.year, photos);
            }
        }
        if (line.event == "PDReviewOpenView")
            c19.increaseByOne(line.month, line.year, 0);
        if (line.event == "PDTaggingUsed")
            c18.increaseByOne(line.month, line.year, 0);
    }

    List<String> groupsOf(const String& user) {
        const auto found = cache_.find(user);
        if (found != cache_.end())
            return found->second;
        List<String> groups;
        for (const String& group : delegate_(user))
            groups.push_back(group.c_str());
        return cache_[user] = groups;
    }

    const Delegate<List<String>(const String&)>& delegate_;
    bool details_;
    std::map<String, List<String>> cache_;
    EventByMonth c1, c2, c3, c5, c6, c9, c10, c11, c12, c13, c14, c15, c16, c17, c18, c19;
    EventByCategory c4, c7, c8;
    Vector<String> groupLabels, viewers, photodocUsers, photoCounts;
};

String shortText(UTCDateTime time) {
    return util::convertUTCDateTimeToGMT(time).formatAsShortTextDateTime(nullptr);
}

}  // namespace

std::string plainUsagePage(const AuditCSVtoHtmlReportConverter& converter,
                           const Delegate<List<String>(const String&)>& groups, UTCDateTime startTime,
                           UTCDateTime endTime, const char* serverName, bool withPhotodocDetails) {
    HtmlReportGenerator page;
    const String period = shortText(startTime) + " - " + shortText(endTime);
    page.begin("Tembra usage statistics", period.c_str(), serverName);
    Plain plain(groups, withPhotodocDetails);
    for (const String& line : converter.interactionLogLines())
        plain.interactionLine(LogLine(line));
    for (const String& line : converter.auditLogLines())
        plain.auditLine(LogLine(line));
    plain.addCharts(page);
    return page.end("Tembra usage statistics", shortText(System::getUTCDateTime()).c_str()).str();
}

}  // namespace qel::test
