#pragma once

#include <string>
#include <utility>
#include <vector>

namespace prometheus {
struct MetricFamily;
}

namespace qel::programs {

constexpr double secondsPerMicrosecond = 1e-6;

/// A count as the figure it becomes; exact up to 2^53.
inline double asDouble(unsigned long long count) {
    return static_cast<double>(count);
}

/// Figures gathered for one answer, in the text form of Prometheus. Used by one thread; made anew for each answer.
class MetricsText {
  public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    MetricsText();
    ~MetricsText();
    MetricsText(const MetricsText&) = delete;
    MetricsText& operator=(const MetricsText&) = delete;

    /// A figure that only grows. Values of one name that differ by labels follow each other.
    void counter(const char* name, const char* help, double value, const Labels& labels = {});
    /// A figure that rises and falls.
    void gauge(const char* name, const char* help, double value, const Labels& labels = {});
    /// Families that somebody else keeps.
    void append(std::vector<prometheus::MetricFamily> families);

    std::string text() const;

  private:
    prometheus::MetricFamily& family(const char* name, const char* help, int type);

    std::vector<prometheus::MetricFamily> families_;
};

}  // namespace qel::programs
