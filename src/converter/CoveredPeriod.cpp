#include <algorithm>
#include <optional>
#include <string_view>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "converter/LineView.h"
#include "converter/LogText.h"
#include "qelCore/GregorianDate.h"

namespace qel {

namespace {

std::optional<UTCDateTime> timeOf(std::string_view piece) {
    const LineView line(piece);
    const TimeFields fields = scanTime(line.time);
    if (!line.parsed || !fields.isPlausible())
        return std::nullopt;
    return GregorianDate(fields.year, fields.month, fields.day, fields.hour, fields.minute, fields.second)
        .asUTCDateTimeLocalTime();
}

std::optional<UTCDateTime> firstTime(std::string_view left) {
    while (!left.empty()) {
        const std::size_t length = std::min(left.find('\n'), left.size());
        if (const auto time = timeOf(left.substr(0, length)))
            return time;
        left.remove_prefix(std::min(length + 1, left.size()));
    }
    return std::nullopt;
}

std::optional<UTCDateTime> lastTime(std::string_view left) {
    while (!left.empty()) {
        const std::size_t before = left.rfind('\n');
        const std::size_t start = before == std::string_view::npos ? 0 : before + 1;
        if (const auto time = timeOf(left.substr(start)))
            return time;
        left = left.substr(0, before == std::string_view::npos ? 0 : before);
    }
    return std::nullopt;
}

}  // namespace

bool AuditCSVtoHtmlReportConverter::coveredPeriod(UTCDateTime& first, UTCDateTime& last) const {
    std::optional<UTCDateTime> earliest, latest;
    for (const String* log : {&interactionLog_, &auditLog_}) {
        const std::string_view text = storedText(log->view());
        const auto from = firstTime(text), to = lastTime(text);
        if (from && (!earliest || *from < *earliest))
            earliest = from;
        if (to && (!latest || *to > *latest))
            latest = to;
    }
    if (!earliest || !latest)
        return false;
    first = *earliest;
    last = *latest;
    return true;
}

long long AuditCSVtoHtmlReportConverter::countLinesOutside(UTCDateTime start, UTCDateTime end) const {
    long long outside = 0;
    for (const String* log : {&interactionLog_, &auditLog_})
        forEachLine(log->view(), [&](std::string_view piece) {
            const auto time = timeOf(piece);
            outside += time && (*time < start || *time > end) ? 1 : 0;
        });
    return outside;
}

}  // namespace qel
