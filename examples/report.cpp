// Turns exported logs into the usage report: `report INTERACTION.csv AUDIT.csv FOLDER`. FOLDER must exist.
#include <cstdio>
#include <ctime>
#include <string>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "qelCore/Resources.h"

namespace {

// A real host embeds the chart library and its own images. This one brings just enough for a page that loads.
void bringResources() {
    static const unsigned char script[] = "// here lies d3.min.js\n";
    static const unsigned char pixel[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    qel::resources::set("tmpl-d3.min.js", {script, sizeof script - 1});
    qel::resources::set("tmpl-zorvik-icon.png", {pixel, sizeof pixel});
    qel::resources::set("tmpl-zorvik-slogan.png", {pixel, sizeof pixel});
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4) {
        std::fprintf(stderr, "usage: report INTERACTION.csv AUDIT.csv FOLDER\n");
        return 64;
    }
    bringResources();
    qel::AuditCSVtoHtmlReportConverter converter;
    // Who belongs to which group, the host knows: here everybody belongs to one.
    converter.connect([](const qel::String&) {
        qel::List<qel::String> groups;
        groups.push_back("radiology");
        return groups;
    });
    converter.readLogs(arguments[1], arguments[2]);
    constexpr long long microseconds = 1000000;
    converter.performUsageReport(arguments[3], 0, std::time(nullptr) * microseconds, "Example hospital",
                                 false);
    std::printf("%s/usage_report.html\n", arguments[3]);
    return 0;
}
