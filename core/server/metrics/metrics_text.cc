#include "core/server/metrics/metrics_text.h"

#include <prometheus/check_names.h>
#include <prometheus/text_serializer.h>

#include <limits>
#include <sstream>
#include <utility>

namespace varnic {

bool IsMetricName(const std::string& name) {
  return prometheus::CheckMetricName(name);
}

void MetricsText::Begin(prometheus::MetricType type, std::string name, std::string help) {
  prometheus::MetricFamily family;
  family.name = std::move(name);
  family.help = std::move(help);
  family.type = type;
  families_.push_back(std::move(family));
}

void MetricsText::BeginCounter(std::string name, std::string help) {
  Begin(prometheus::MetricType::Counter, std::move(name), std::move(help));
}

void MetricsText::BeginGauge(std::string name, std::string help) {
  Begin(prometheus::MetricType::Gauge, std::move(name), std::move(help));
}

void MetricsText::BeginHistogram(std::string name, std::string help) {
  Begin(prometheus::MetricType::Histogram, std::move(name), std::move(help));
}

void MetricsText::Add(double value, Labels labels) {
  prometheus::ClientMetric sample;
  sample.label = std::move(labels);
  sample.counter.value = value;
  sample.gauge.value = value;
  families_.back().metric.push_back(std::move(sample));
}

void MetricsText::Add(const DurationHistogram& histogram, Labels labels) {
  prometheus::ClientMetric sample;
  sample.label = std::move(labels);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < histogram.buckets().size(); ++i) {
    count += histogram.buckets()[i];
    const bool has_bound = i < DurationHistogram::kBounds.size();
    sample.histogram.bucket.push_back({count, has_bound ? DurationHistogram::kBounds[i]
                                                        : std::numeric_limits<double>::infinity()});
  }
  sample.histogram.sample_count = count;
  sample.histogram.sample_sum = histogram.sum_seconds();
  families_.back().metric.push_back(std::move(sample));
}

void MetricsText::AddCounter(std::string name, std::string help, double value) {
  BeginCounter(std::move(name), std::move(help));
  Add(value);
}

void MetricsText::AddGauge(std::string name, std::string help, double value) {
  BeginGauge(std::move(name), std::move(help));
  Add(value);
}

std::string MetricsText::Serialize() const {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, families_);
  return text.str();
}

}  // namespace varnic
