// Any bytes as the two exported logs that a report is made from: the first half is the interaction log, the second the
// audit log. The fast passes must make the page of the plain ones, and the guard must leave nothing that could act.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "auditing/HtmlReportGenerator.h"
#include "common/TextGuard.h"
#include "converter/PlainUsageReport.h"
#include "converter/UsageCharts.h"
#include "converter/UsageReport.h"
#include "fuzz/Check.h"
#include "qelCore/logging/Log.h"

using namespace qel;

namespace {

/// Both pages carry the same date.
class StandingClock : public Clock {
  public:
    UTCDateTime now() override { return 0; }
};

List<String> groupsOf(const String& user) {
    List<String> groups;
    for (std::size_t i = 0; i < user.size() % 3; ++i)
        groups.push_back(String(user.view().substr(0, i + 1)));
    return groups;
}

std::string fastPage(std::string_view interaction, std::string_view audit) {
    HtmlReportGenerator page;
    const char* const present = "01 Jan 1970 00:00";
    page.begin("Tembra usage statistics", (String(present) + " - " + present).c_str(), "");
    UsageCounts counts = countUsage(interaction, audit, groupsOf, true);
    addUsageCharts(page, counts, true);
    return page.end("Tembra usage statistics", present).str();
}

void checkReport(std::string_view interaction, std::string_view audit) {
    AuditCSVtoHtmlReportConverter converter;
    converter.connect(groupsOf);
    converter.setLogs(String(interaction), String(audit));
    fuzz::check(fastPage(interaction, audit) == test::plainUsagePage(converter, converter, 0, 0, "", true),
                "both passes make the same page");
    UTCDateTime first = 0, last = 0;
    if (converter.coveredPeriod(first, last))
        converter.countLinesOutside(first, last);
}

void checkGuard(std::string_view text) {
    const std::string cleaned = programs::cleanText(text);
    fuzz::check(programs::originalText(cleaned) == text, "the original comes back");
    for (const char character : cleaned)
        fuzz::check(std::string_view("\"<>&`\\").find(character) == std::string_view::npos &&
                        static_cast<unsigned char>(character) >= 0x20 && character != 0x7F,
                    "nothing is left that could act in a page");
    fuzz::check(cleaned.find("[[[[") == std::string::npos, "no placeholder is left");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = [] {
        logging::setSink(nullptr);
        System::setClock(std::make_shared<StandingClock>());
        return true;
    }();
    (void)ready;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkReport(text.substr(0, size / 2), text.substr(size / 2));
    checkGuard(text);
    return 0;
}
