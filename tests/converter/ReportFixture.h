#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// Two small logs, a report from them, and what its charts show.
class ReportTest : public ::testing::Test {
  protected:
    static constexpr const char* header =
        "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7\n";

    /// Adds one line to the interaction log: "3/7/2021" at ten o'clock, the user, then event and parameters
    /// joined by semicolons.
    void interaction(const std::string& date, const std::string& user, const std::string& event) {
        interaction_ += line(date, user, event);
    }
    void audit(const std::string& date, const std::string& user, const std::string& event) {
        audit_ += line(date, user, event);
    }
    void member(const std::string& user, const List<String>& groups) { groups_[user] = groups; }

    void report(bool withPhotodocDetails = false) {
        load();
        converter_.performUsageReport(folder_.path().c_str(), 0, 0, "server", withPhotodocDetails);
        page_ = TemporaryFolder::read(folder_ / "usage_report.html");
    }
    void teleradiologyReport() {
        load();
        converter_.performTeleradiologyReport(folder_.path().c_str(), 0, 0, "server");
        page_ = TemporaryFolder::read(folder_ / "teleradiology_report.html");
    }

    const std::string& page() const { return page_; }
    bool isShown(const std::string& title) const { return page_.find(heading(title)) != std::string::npos; }
    int chartsShown() const { return count("<div id=\"chart-"); }
    /// The rows of a chart, "March 2021: 1 0 | April 2021: 2 1"; empty when it is not shown.
    std::string chart(const std::string& title) const {
        std::string rows;
        const std::string data = literal(title, "var data = ");
        for (std::size_t at = data.find("{ xLabel: \""); at != std::string::npos;
             at = data.find("{ xLabel: \"", at + 1))
            rows += (rows.empty() ? "" : " | ") + row(data.substr(at, data.find('}', at) - at));
        return rows;
    }
    /// The legend of a chart as it stands in the page: ["Series","Studies"].
    std::string keys(const std::string& title) const { return literal(title, "var keys = "); }
    /// The rows of a table as they stand in the page.
    std::string table(const std::string& title) const { return literal(title, "var tableContent = "); }

    int count(const std::string& what) const {
        int found = 0;
        for (std::size_t at = page_.find(what); at != std::string::npos; at = page_.find(what, at + 1))
            ++found;
        return found;
    }

    TemporaryFolder folder_;
    logging::CaptureSink log_;
    AuditCSVtoHtmlReportConverter converter_;
    std::string interaction_ = header;
    std::string audit_ = header;
    std::map<std::string, List<String>> groups_;
    std::map<std::string, int> asked_;  // how often the host was asked for a user's groups

  private:
    static std::string line(const std::string& date, const std::string& user, const std::string& event) {
        return date + " 10:00:00;" + user + ";WS1;" + event + "\r\n";
    }
    static std::string heading(const std::string& title) { return "<h2>" + title + "</h2>"; }

    void load() {
        converter_.connect([this](const String& user) {
            ++asked_[user.str()];
            const auto found = groups_.find(user.str());
            return found == groups_.end() ? List<String>() : found->second;
        });
        const std::string interaction = folder_.write("interaction.csv", interaction_);
        const std::string audit = folder_.write("audit.csv", audit_);
        converter_.readLogs(interaction.c_str(), audit.c_str());
    }

    std::string literal(const std::string& title, const std::string& variable) const {
        const std::size_t chart = page_.find(heading(title));
        if (chart == std::string::npos)
            return {};
        const std::size_t start = page_.find(variable, chart) + variable.size();
        return page_.substr(start, page_.find(";\n", start) - start);
    }

    /// `{ xLabel: "March 2021", "Series": 1.000000` as "March 2021: 1"
    static std::string row(const std::string& object) {
        const std::size_t label = object.find('"') + 1;
        std::string text = object.substr(label, object.find('"', label) - label) + ":";
        const std::string decimals = ".000000";
        for (std::size_t end = object.find(decimals); end != std::string::npos;
             end = object.find(decimals, end + 1)) {
            const std::size_t start = object.rfind(' ', end);
            text += object.substr(start, end - start);
        }
        return text;
    }

    std::string page_;
};

}  // namespace qel::test
