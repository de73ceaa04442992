#include <array>
#include <string_view>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "auditing/HtmlReportGenerator.h"
#include "converter/LineView.h"
#include "converter/LogLine.h"
#include "converter/LogText.h"
#include "converter/ReportTexts.h"

namespace qel {

namespace {

constexpr const char* teleradiologyTitle = "Tembra teleradiology report";

using Table = Vector<Vector<String>>;

/// The three tables, each beginning with its header row.
struct Tables {
    Table checks = {{"Day", "Tester", "Line pair grid in center and corners", "5% and 95% fields",
                     // The doubled parenthesis is part of the report's text.
                     "QUALITY CONTRO((L) white and gray)", "Centering, borders and lines of the grid",
                     "Gradient", "passed/failed"}};
    Table lux = {{"Date", "Tester", "Lux", "Room class"}};
    Table speed = {{"Date", "Tester", "Quick/Detailed", "Duration (s)"}};
};

/// A check box or a result as the table shows it.
String checkMark(const String& text) {
    if (text == "1")
        return "\u2713";
    if (text.empty())
        return "\u2717";
    if (text == "passed")
        return "\u2705";
    if (text == "failed")
        return "\u274c";
    return text;
}

/// The time of a line, in UTC without conversion, and its user; `params` parameters follow.
Vector<String> rowOf(const LogLine& line, std::size_t params) {
    Vector<String> row = {GregorianDate(line.time).formatAsShortTextDateTime(nullptr), line.reportUser};
    for (std::size_t i = 0; i < params; ++i)
        row.push_back(i < line.params.size() ? line.params[i] : String());
    return row;
}

void addCheck(Tables& tables, LogLine line) {
    for (String& param : line.params)
        param = checkMark(param);
    tables.checks.push_back(rowOf(line, 6));
}

bool isTest(std::string_view event) {
    return event == "DailyConstancyCheck" || event == "ConstancyLuxMeter" || event == "ConstancySpeedTest";
}

void addTest(Tables& tables, const LogLine& line) {
    if (!line.dateValid)
        return;
    if (line.event == "DailyConstancyCheck")
        addCheck(tables, line);
    else if (line.event == "ConstancyLuxMeter")
        tables.lux.push_back(rowOf(line, 2));
    else
        tables.speed.push_back(rowOf(line, 2));
}

Tables collectTests(std::string_view auditLog) {
    Tables tables;
    forEachLine(auditLog, [&](std::string_view piece) {
        if (isTest(LineView(piece).event))
            addTest(tables, LogLine(String(piece)));
    });
    return tables;
}

void addTables(HtmlReportGenerator& page, const Tables& tables) {
    page.addTable("Daily constancy check", tables.checks,
                  "This table lists the daily constancy check by a tester. Columns 3 to 7 represent the "
                  "checkboxes. The last column shows whether the check was successful or not.");
    page.addTable(
        "Lux Meter", tables.lux,
        "This table lists the lux meter measurement with the current lux value and the corresponding "
        "room class.");
    page.addTable(
        "Download speed test", tables.speed,
        "This table lists the download speed of a given test dataset with its duration in seconds. "
        "Quick downloads a 10% of the dataset and extrapolates the duration while Detailed downloads "
        "the whole dataset.");
}

}  // namespace

void AuditCSVtoHtmlReportConverter::performTeleradiologyReport(const char* targetDir, UTCDateTime startTime,
                                                               UTCDateTime endTime, const char* serverName) {
    HtmlReportGenerator page;
    page.begin(teleradiologyTitle, reportPeriod(startTime, endTime).c_str(), serverName);
    addTables(page, collectTests(auditLog_.view()));
    const String text = page.end(teleradiologyTitle, presentTime().c_str());
    text.saveToFile((String(targetDir) + "/teleradiology_report.html").c_str());
    getHTMLRessourceFiles(targetDir);
}

}  // namespace qel
