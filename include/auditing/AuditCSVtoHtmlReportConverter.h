#pragma once

#include "auditing/Export.h"
#include "qelCore/Delegate.h"
#include "qelCore/List.h"
#include "qelCore/String.h"
#include "qelCore/System.h"
#include "qelCore/Vector.h"

namespace qel {

/// Turns two exported logs, the interaction log and the audit log, into HTML reports. One thread at a time;
/// everything runs on the caller's thread.
///
/// The converter is itself the question "which groups does this user belong to?", which the host answers:
/// `converter.connect([](const String& user) { return groupsOf(user); })`. It is asked once per distinct user
/// name and report; unconnected means that nobody has a group.
///
/// It owns the texts of the loaded logs until they are replaced. Texts of the logs and of the host go into
/// the pages as they are, markup included; a host that does not trust them cleans them first and hands them
/// in with `setLogs`. A field ends at its first zero byte, as every text does that is passed as a C string.
class QELAUDITING_EXPORT AuditCSVtoHtmlReportConverter : public Delegate<List<String>(const String&)> {
  public:
    AuditCSVtoHtmlReportConverter();
    ~AuditCSVtoHtmlReportConverter() override;
    AuditCSVtoHtmlReportConverter(const AuditCSVtoHtmlReportConverter&) = delete;
    AuditCSVtoHtmlReportConverter& operator=(const AuditCSVtoHtmlReportConverter&) = delete;

    static const char* getStaticClassName() { return "AuditCSVtoHtmlReportConverter"; }

    /// Loads both exported files; each one's first line, whatever it holds, is dropped as its header. An
    /// interaction log that cannot be read leaves everything as it was and logs "could not load csv file"; an
    /// audit log that cannot be read keeps the audit lines of before, without a message.
    void readLogs(const char* interactionLogPath, const char* auditLogPath);

    /// Takes over the texts of both logs, header lines included, from a host that holds them already. Moved,
    /// not copied.
    void setLogs(String interactionLog, String auditLog);

    /// The stored lines, without the header line: the pieces between line feeds, each still with its carriage
    /// return, the empty piece behind the last line end included. Copies, for tests and tools; the reports
    /// read the loaded text itself.
    Vector<String> interactionLogLines() const;
    Vector<String> auditLogLines() const;

    /// The times of the first and the last dated line (of the two logs, the earlier first and the later
    /// last); false, with both as they were, when no line has a plausible date.
    bool coveredPeriod(UTCDateTime& first, UTCDateTime& last) const;

    /// How many dated lines lie before `start` or after `end`.
    long long countLinesOutside(UTCDateTime start, UTCDateTime end) const;

    /// Writes `targetDir`/usage_report.html: sixteen charts, nineteen with photodoc details, less those that
    /// nothing was counted for; then the resource files. Times are microseconds since 1970 UTC and only label
    /// the page: every dated line counts. Failed writes go unnoticed; the page is made whole before it is
    /// written. Numbers of photos above 10,000 are dropped, because their chart has a series for every
    /// number up to the largest; the first few are logged at error level one by one, the others as a sum.
    void performUsageReport(const char* targetDir, UTCDateTime startTime, UTCDateTime endTime,
                            const char* serverName, bool withPhotodocDetails);

    /// Writes `targetDir`/teleradiology_report.html: the tables of constancy checks, lux meter readings and
    /// speed tests found in the audit log, in its order; then the resource files. Otherwise as above.
    void performTeleradiologyReport(const char* targetDir, UTCDateTime startTime, UTCDateTime endTime,
                                    const char* serverName);

    /// Writes the three files that every page loads, d3.min.js, zorvik-icon.png and zorvik-slogan.png, into
    /// `targetDir` from the host's resources of these names with the prefix "tmpl-". One that the host does
    /// not have is logged and left out; failed writes go unnoticed.
    void getHTMLRessourceFiles(const char* targetDir);

  private:
    String interactionLog_;
    String auditLog_;
};

}  // namespace qel
