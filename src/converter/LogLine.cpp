#include "converter/LogLine.h"

#include "converter/LineView.h"
#include "qelCore/GregorianDate.h"

namespace qel {

namespace {

Vector<String> piecesOf(std::string_view text) {
    Vector<String> pieces = String(text).split(';');
    for (String& piece : pieces)
        piece = String(untilZero(piece.view()));
    return pieces;
}

}  // namespace

LogLine::LogLine(const String& line) {
    const LineView view(line.view());
    if (!view.parsed) {
        params = piecesOf(trimmed(line.view()));
        return;
    }
    timeText = String(untilZero(view.time));
    user = view.user;
    reportUser = reportUserOf(view.user);
    device = view.device;
    event = view.event;
    if (!view.rest.empty())
        params = piecesOf(view.rest.substr(1));

    const TimeFields fields = scanTime(view.time);
    month = fields.month;
    day = fields.day;
    year = fields.year;
    hour = fields.hour;
    minute = fields.minute;
    second = fields.second;
    time = GregorianDate(year, month, day, hour, minute, second).asUTCDateTimeLocalTime();
    parsed = true;
    dateValid = fields.isPlausible();
}

}  // namespace qel
