#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "auditing/Export.h"
#include "qelCore/String.h"
#include "qelCore/Vector.h"

namespace qel {

/// The counter behind one bar chart: rows (months or categories) with one count per series, which
/// `HtmlReportGenerator::addBarchart` turns into bars. A value type for one thread at a time; it is owned by
/// the code that fills it and never deleted through this base, hence no virtual destructor.
///
/// Fill it with any number of increase calls, then let `generate` be called once: a second call appends every
/// row again.
class QELAUDITING_EXPORT EventStatistic {
  public:
    /// Turns the counts into labels and values. `numSeries` is the number of series that have a name; a
    /// negative number counts as none.
    virtual void generate(int numSeries) = 0;

    /// One label per row, filled by `generate`.
    const Vector<String>& chartRowLabels() const noexcept { return labels_; }
    /// One vector per series, element i belonging to label i; filled by `generate`.
    const Vector<Vector<float>>& chartValues() const noexcept { return values_; }
    /// The number of series; 1 in a fresh counter.
    int seriesCount() const noexcept { return seriesCount_; }

    /// Raises the series count so that it covers `series`, without counting anything: what an occurrence
    /// does that turns out to be counted already. A negative series is ignored.
    void widen(int series);

  protected:
    EventStatistic() = default;
    EventStatistic(const EventStatistic&) = default;
    EventStatistic(EventStatistic&&) = default;
    EventStatistic& operator=(const EventStatistic&) = default;
    EventStatistic& operator=(EventStatistic&&) = default;
    ~EventStatistic() = default;

    using Counts = std::vector<std::int32_t>;

    /// Adds to one element of a row, which grows to the series count first. Counts stop at the largest value
    /// of 32 bits instead of turning negative.
    void addTo(Counts& counts, int series, std::int32_t occurrences) const;
    /// Sets the series count and makes room for that many series of values.
    void beginRows(int series);
    /// Appends one row: its label, and for every series its count or 0.
    void appendRow(String label, const Counts& counts);

    Vector<String> labels_;
    Vector<Vector<float>> values_;
    std::int32_t seriesCount_ = 1;
};

/// Counts occurrences by calendar month; rows come out in the order of time.
class QELAUDITING_EXPORT EventByMonth : public EventStatistic {
  public:
    EventByMonth() = default;

    static const char* getStaticClassName() { return "EventByMonth"; }

    /// Counts one occurrence. `month` is 1 to 12; other numbers are not checked, and 16 or more run into the
    /// year. A negative series is ignored.
    void increaseByOne(int month, int year, int series);

    /// Counts one occurrence unless the token was already counted for this month and series. The three are
    /// remembered as one text joined by "-", deliberately without escaping: triples that join to the same
    /// text count once. The token must not be null.
    void increaseByOneOnlyOnceInMonth(int month, int year, const char* token, int series);

    /// Rows for all months with a count, labelled like "March 2021". The series count becomes exactly
    /// `numSeries`; further series are dropped.
    void generate(int numSeries) override;

  private:
    std::map<std::int32_t, Counts> months_;
    std::set<std::string> seen_;
};

/// Counts occurrences by a text, such as a user's or a group's name; rows come out in the order of the texts'
/// bytes, whatever the locale.
class QELAUDITING_EXPORT EventByCategory : public EventStatistic {
  public:
    EventByCategory() = default;

    static const char* getStaticClassName() { return "EventByCategory"; }

    /// Counts one occurrence. The category must not be null; a negative series is ignored.
    void increaseByOne(const char* category, int series);

    /// Counts several occurrences at once; none when `occurrences` is not positive.
    void increaseBy(const char* category, int series, std::int32_t occurrences);

    /// Counts one occurrence unless the token was already counted for this category and series, remembered
    /// and joined as in EventByMonth. Neither text may be null.
    void increaseByOneOnlyOnce(const char* category, const char* token, int series);

    /// Rows for all categories. The series count becomes the larger of its own and `numSeries`: unlike
    /// months, categories never lose a series.
    void generate(int numSeries) override;

  private:
    std::map<String, Counts> categories_;
    std::set<std::string> seen_;
};

}  // namespace qel
