#include "common/MetricsText.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <iterator>

namespace qel::programs {
namespace {

prometheus::ClientMetric withLabels(const MetricsText::Labels& labels) {
    prometheus::ClientMetric metric;
    for (const auto& [name, value] : labels)
        metric.label.push_back({name, value});
    return metric;
}

}  // namespace

MetricsText::MetricsText() = default;

MetricsText::~MetricsText() = default;

prometheus::MetricFamily& MetricsText::family(const char* name, const char* help, int type) {
    if (families_.empty() || families_.back().name != name) {
        prometheus::MetricFamily fresh;
        fresh.name = name;
        fresh.help = help;
        fresh.type = static_cast<prometheus::MetricType>(type);
        families_.push_back(std::move(fresh));
    }
    return families_.back();
}

void MetricsText::counter(const char* name, const char* help, double value, const Labels& labels) {
    prometheus::ClientMetric metric = withLabels(labels);
    metric.counter.value = value;
    family(name, help, static_cast<int>(prometheus::MetricType::Counter)).metric.push_back(std::move(metric));
}

void MetricsText::gauge(const char* name, const char* help, double value, const Labels& labels) {
    prometheus::ClientMetric metric = withLabels(labels);
    metric.gauge.value = value;
    family(name, help, static_cast<int>(prometheus::MetricType::Gauge)).metric.push_back(std::move(metric));
}

void MetricsText::append(std::vector<prometheus::MetricFamily> families) {
    families_.insert(families_.end(), std::make_move_iterator(families.begin()),
                     std::make_move_iterator(families.end()));
}

std::string MetricsText::text() const {
    return prometheus::TextSerializer().Serialize(families_);
}

}  // namespace qel::programs
