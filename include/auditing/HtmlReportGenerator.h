#pragma once

#include <cstdint>

#include "auditing/EventStatistic.h"
#include "auditing/Export.h"
#include "qelCore/String.h"
#include "qelCore/Vector.h"

namespace qel {

/// Builds one HTML report in memory: `begin`, then charts, tables and descriptions in their order on the
/// page, then `end`. A value type for one thread at a time.
///
/// All texts go into page and script as they are, without escaping: whoever passes texts from outside decides
/// what they may hold. Placeholders of the templates are filled one after the other, so a text that holds the
/// mark of a later placeholder is filled in that place too.
class QELAUDITING_EXPORT HtmlReportGenerator {
  public:
    HtmlReportGenerator() = default;

    static const char* getStaticClassName() { return "HtmlReportGenerator"; }

    /// Starts a page with its header, dropping the text of an earlier one. The numbers of charts and tables
    /// and the knowledge that something was added go on from the earlier page: deliberate, so that fragments
    /// of one generator never share an id. Null pointers count as empty texts, here and below.
    void begin(const char* title, const char* timePeriod, const char* serverName);

    /// Appends a paragraph; no separator, and no effect on the separator of what follows.
    void addDescription(const char* text);

    /// Appends a bar chart: `statistic.generate` is called with the number of keys, and series j is named
    /// keys[j]; series without a name are left out, and rows without a value show 0. A statistic without rows
    /// or without series adds nothing and uses no number. `itemsPerRow` is the number of legend entries in
    /// one row, at least 1 (it is not checked).
    void addBarchart(const char* title, const Vector<String>& keys, EventStatistic& statistic,
                     const String& description, int itemsPerRow);

    /// Appends a table whose first row is the header. Longer rows are cut to the header's length, shorter
    /// ones filled with empty cells. Without a second row it adds nothing and uses no number.
    void addTable(const char* title, const Vector<Vector<String>>& rows, const String& description);

    /// Closes the page with its footer and returns a copy of the whole text. Calling it again adds another
    /// footer.
    String end(const char* title, const char* currentDate);

  protected:
    void writeHeader(const char* title, const char* timePeriod, const char* serverName);
    void writeFooter(const char* title, const char* currentDate);
    /// The texts as a script array of string literals.
    String createArrayAsString(const Vector<String>& items);

  private:
    void separate();
    void describe(const String& description);

    String text_;
    std::int32_t nextChart_ = 0;
    std::int32_t nextTable_ = 0;
    bool hasContent_ = false;
};

}  // namespace qel
