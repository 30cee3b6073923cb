#ifndef CORE_SERVER_METRICS_METRICS_TEXT_H_
#define CORE_SERVER_METRICS_METRICS_TEXT_H_

#include <prometheus/metric_family.h>

#include <string>
#include <string_view>
#include <vector>

#include "core/server/metrics/call_counters.h"

namespace varnic {

// Whether Prometheus takes it for the name of a metric.
bool IsMetricName(const std::string& name);

// A page of metrics in the making, for Prometheus to read. Every metric has its samples together,
// so one is begun, and then given samples.
class MetricsText {
 public:
  using Labels = std::vector<prometheus::ClientMetric::Label>;

  void BeginCounter(std::string name, std::string help);
  void BeginGauge(std::string name, std::string help);
  void BeginHistogram(std::string name, std::string help);

  // A sample of the counter or gauge that was begun last.
  void Add(double value, Labels labels = {});
  // Of the histogram that was begun last.
  void Add(const DurationHistogram& histogram, Labels labels = {});

  // A metric with one sample and no label.
  void AddCounter(std::string name, std::string help, double value);
  void AddGauge(std::string name, std::string help, double value);

  // The page, in the text format 0.0.4.
  std::string Serialize() const;

 private:
  void Begin(prometheus::MetricType type, std::string name, std::string help);

  std::vector<prometheus::MetricFamily> families_;
};

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_METRICS_TEXT_H_
