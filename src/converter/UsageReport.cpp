#include "converter/UsageReport.h"

#include <utility>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "auditing/HtmlReportGenerator.h"
#include "converter/AccessCharts.h"
#include "converter/ActivityCharts.h"
#include "converter/LineView.h"
#include "converter/LogText.h"
#include "converter/ReportTexts.h"
#include "converter/SharingCharts.h"
#include "converter/UsageCharts.h"
#include "converter/WorkCharts.h"

namespace qel {

namespace {

constexpr const char* usageTitle = "Tembra usage statistics";

void walkInteractionLog(std::string_view text, UserDirectory& users, UsageCounts& counts,
                        bool withPhotodocDetails) {
    Calendar calendar;
    ActivityCharts activity(counts, users);
    WorkCharts work(counts, users, withPhotodocDetails);
    forEachLine(text, [&](std::string_view piece) {
        const LineView line(piece);
        const UserDirectory::User user = users.meet(line.user);
        const Day& day = calendar.dayOf(line.time);
        if (!day.plausible)
            return;
        activity.count(user, day, calendar.monthNumber(day));
        work.count(line, user.name, day);
    });
    activity.finish();
    work.finish();
}

void walkAuditLog(std::string_view text, UserDirectory& users, UsageCounts& counts) {
    Calendar calendar;
    AccessCharts access(counts, users);
    SharingCharts sharing(counts);
    forEachLine(text, [&](std::string_view piece) {
        const LineView line(piece);
        const UserDirectory::User user = users.meet(line.user);
        const Day& day = calendar.dayOf(line.time);
        if (!day.plausible)
            return;
        std::string_view params[3];
        if (line.event == "DataAccess" && line.firstParams(params, 2))
            access.count(user.name, day, params[0], params[1]);
        else if (line.event == "DataShare" && line.firstParams(params, 3))
            sharing.count(day, calendar.monthNumber(day), params[0], params[2]);
    });
    access.finish();
}

}  // namespace

UsageCounts countUsage(std::string_view interactionLog, std::string_view auditLog, GroupLookup groups,
                       bool withPhotodocDetails) {
    UsageCounts counts;
    UserDirectory users(std::move(groups));
    walkInteractionLog(interactionLog, users, counts, withPhotodocDetails);
    walkAuditLog(auditLog, users, counts);
    return counts;
}

void AuditCSVtoHtmlReportConverter::performUsageReport(const char* targetDir, UTCDateTime startTime,
                                                       UTCDateTime endTime, const char* serverName,
                                                       bool withPhotodocDetails) {
    HtmlReportGenerator page;
    page.begin(usageTitle, reportPeriod(startTime, endTime).c_str(), serverName);
    UsageCounts counts = countUsage(
        interactionLog_.view(), auditLog_.view(), [this](const String& user) { return (*this)(user); },
        withPhotodocDetails);
    addUsageCharts(page, counts, withPhotodocDetails);
    const String text = page.end(usageTitle, presentTime().c_str());
    text.saveToFile((String(targetDir) + "/usage_report.html").c_str());
    getHTMLRessourceFiles(targetDir);
}

}  // namespace qel
