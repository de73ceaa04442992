#include "auditing/HtmlReportGenerator.h"

#include <algorithm>
#include <string>

#include "qelCore/logging/MessageStream.h"
#include "qelCore/util/StringFormat.h"
#include "report/Templates.h"

namespace qel {

using templates::Part;
using util::stringFormat;

namespace {

std::string_view orEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

/// "[" + one text per index, joined by commas + "]"
template <class TextOf>
String scriptArray(std::size_t count, const TextOf& textOf) {
    String array = "[";
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0)
            array += ",";
        array += textOf(i);
    }
    array += "]";
    return array;
}

float valueOf(const EventStatistic& statistic, std::size_t series, std::size_t row) {
    const Vector<Vector<float>>& values = statistic.chartValues();
    return series < values.size() && row < values[series].size() ? values[series][row] : 0.0F;
}

/// One row of a chart: its label, and a member for every series that has a name.
String chartRow(const Vector<String>& keys, const EventStatistic& statistic, std::size_t row) {
    String object = stringFormat("{ xLabel: \"%s\"", statistic.chartRowLabels()[row]);
    const std::size_t series =
        std::min(keys.size(), static_cast<std::size_t>(std::max(statistic.seriesCount(), 0)));
    for (std::size_t j = 0; j < series; ++j)
        object += stringFormat(", \"%s\": %f", keys[j], static_cast<double>(valueOf(statistic, j, row)));
    object += "}";
    return object;
}

/// One row of a table: for every column of the header a member that holds the cell.
String tableRow(const Vector<String>& header, const Vector<String>& cells) {
    String object = "{";
    for (std::size_t i = 0; i < header.size(); ++i) {
        if (i > 0)
            object += ",";
        object += stringFormat("\"%s\":\"%s\"", header[i], i < cells.size() ? cells[i] : String());
    }
    object += "}";
    return object;
}

bool hasNothingToDraw(const EventStatistic& statistic) {
    return statistic.chartRowLabels().empty() || statistic.chartValues().empty() ||
           statistic.chartValues().front().empty();
}

}  // namespace

void HtmlReportGenerator::begin(const char* title, const char* timePeriod, const char* serverName) {
    text_.clear();
    writeHeader(title, timePeriod, serverName);
}

void HtmlReportGenerator::addDescription(const char* text) {
    text_ += templates::get(Part::description).replace_all("[[[[DESCRIPTION]]]]", orEmpty(text));
}

void HtmlReportGenerator::addBarchart(const char* title, const Vector<String>& keys,
                                      EventStatistic& statistic, const String& description, int itemsPerRow) {
    logging::MessageStream(1, 2) << "generating chart for: " << title;
    statistic.generate(static_cast<int>(keys.size()));
    if (hasNothingToDraw(statistic))
        return;
    separate();
    const String data = scriptArray(statistic.chartRowLabels().size(),
                                    [&](std::size_t row) { return chartRow(keys, statistic, row); });
    text_ += templates::get(Part::barchart)
                 .replace_all("[[[[CHART TITLE]]]]", orEmpty(title))
                 .replace_all("[[[[CHART ID]]]]", std::to_string(nextChart_++))
                 .replace_all("[[[[KEYS]]]]", createArrayAsString(keys))
                 .replace_all("[[[[NUM ITEMS PER ROW]]]]", std::to_string(itemsPerRow))
                 .replace_all("[[[[DATA]]]]", data);
    describe(description);
    hasContent_ = true;
}

void HtmlReportGenerator::addTable(const char* title, const Vector<Vector<String>>& rows,
                                   const String& description) {
    logging::MessageStream(1, 2) << "generating table for: " << title;
    if (rows.size() < 2)
        return;
    separate();
    const String content =
        scriptArray(rows.size() - 1, [&](std::size_t row) { return tableRow(rows[0], rows[row + 1]); });
    text_ += templates::get(Part::table)
                 .replace_all("[[[[TABLE TITLE]]]]", orEmpty(title))
                 .replace_all("[[[[TABLE ID]]]]", std::to_string(nextTable_++))
                 .replace_all("[[[[TABLE HEADER]]]]", createArrayAsString(rows[0]))
                 .replace_all("[[[[TABLE CONTENT]]]]", content);
    describe(description);
    hasContent_ = true;
}

String HtmlReportGenerator::end(const char* title, const char* currentDate) {
    writeFooter(title, currentDate);
    return text_;
}

void HtmlReportGenerator::writeHeader(const char* title, const char* timePeriod, const char* serverName) {
    text_ += templates::get(Part::header)
                 .replace_all("[[[[TITLE]]]]", orEmpty(title))
                 .replace_all("[[[[TIMEPERIOD]]]]", orEmpty(timePeriod))
                 .replace_all("[[[[SERVERNAME]]]]", orEmpty(serverName));
}

void HtmlReportGenerator::writeFooter(const char* title, const char* currentDate) {
    text_ += templates::get(Part::footer)
                 .replace_all("[[[[TITLE]]]]", orEmpty(title))
                 .replace_all("[[[[CURRENTDATE]]]]", orEmpty(currentDate));
}

String HtmlReportGenerator::createArrayAsString(const Vector<String>& items) {
    return scriptArray(items.size(), [&](std::size_t i) { return stringFormat("\"%s\"", items[i]); });
}

void HtmlReportGenerator::separate() {
    if (hasContent_)
        text_ += templates::get(Part::separator);
}

void HtmlReportGenerator::describe(const String& description) {
    if (!description.empty())
        addDescription(description);
}

}  // namespace qel
