#include "core/server/metrics/server_metrics.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/match.h"
#include "core/common/rpc/fatal.h"
#include "core/net/edge/edge_counters.h"
#include "core/server/metrics/call_counters.h"
#include "core/server/metrics/metrics_text.h"
#include "core/server/metrics/process_usage.h"
#include "core/server/protobuf_log.h"

namespace varnic {
namespace {

double Number(std::uint64_t count) {
  return static_cast<double>(count);
}

std::string CodeName(std::size_t code) {
  return absl::StatusCodeToString(static_cast<absl::StatusCode>(code));
}

// OK always, so that a rate has a beginning; other codes once they have occurred.
void AddByCode(const CallEnds& ends, const std::string& method, MetricsText& text) {
  for (std::size_t i = 0; i < CallEnds::kCodes; ++i) {
    if (i > 0 && ends.by_code()[i] == 0) continue;
    text.Add(Number(ends.by_code()[i]), {{"method", method}, {"code", CodeName(i)}});
  }
}

// Only codes that have occurred: a histogram is many lines.
void AddDurations(const CallEnds& ends, const std::string& method, MetricsText& text) {
  for (std::size_t i = 0; i < CallEnds::kCodes; ++i) {
    const DurationHistogram* durations = ends.durations(i);
    if (durations != nullptr) text.Add(*durations, {{"method", method}, {"code", CodeName(i)}});
  }
}

void AddCalls(const CallCounters& calls, MetricsText& text) {
  text.BeginCounter(
      "varnic_calls_total",
      "Calls that have ended, but for those that became streams, by method and code.");
  for (const auto& method : calls.methods()) AddByCode(method->calls, method->label, text);
  text.BeginHistogram("varnic_call_duration_seconds",
                      "Time from the beginning of a unary call's request to its status, by method "
                      "and code.");
  for (const auto& method : calls.methods()) {
    if (!method->is_stream) AddDurations(method->calls, method->label, text);
  }
}

void AddStreams(const CallCounters& calls, MetricsText& text) {
  std::vector<const MethodCounters*> streams;
  for (const auto& method : calls.methods()) {
    if (method->is_stream) streams.push_back(method.get());
  }
  text.BeginCounter("varnic_streams_opened_total", "Streams that clients have opened, by method.");
  for (const auto* method : streams) {
    text.Add(Number(method->streams_opened), {{"method", method->label}});
  }
  text.BeginCounter("varnic_streams_ended_total",
                    "Streams that have ended, by method and final code.");
  for (const auto* method : streams) AddByCode(method->streams, method->label, text);
  text.BeginGauge("varnic_streams_open", "Streams that are open, by method.");
  for (const auto* method : streams) {
    text.Add(Number(method->streams_open()), {{"method", method->label}});
  }
}

void AddStreamUsage(const StreamTable& streams, MetricsText& text) {
  const StreamUsage usage = streams.Usage();
  text.AddGauge("varnic_subscriptions", "Keys that open streams are subscribed to.",
                Number(usage.subscriptions));
  text.AddGauge("varnic_waiting_messages", "Messages that wait for slow readers.",
                Number(usage.waiting_messages));
  text.AddGauge("varnic_waiting_bytes", "Bytes of the messages that wait for slow readers.",
                Number(usage.waiting_bytes));
  text.AddCounter("varnic_conflated_events_total",
                  "Events that a newer one has replaced before a slow reader took them.",
                  Number(streams.conflated_events()));
  text.AddCounter("varnic_slow_readers_total", "Streams ended because their client did not read.",
                  Number(streams.slow_readers()));
}

void AddConnections(const RpcServer& server, MetricsText& text) {
  text.AddGauge("varnic_connections_open", "Connections that are open.",
                Number(server.open_connections()));
  text.AddCounter("varnic_connections_accepted_total", "Connections that were let in.",
                  Number(server.accepted_connections()));
  text.AddCounter("varnic_connections_refused_total", "Connections that were not let in.",
                  Number(server.refused_connections()));
  text.AddCounter("varnic_received_bytes_total", "Bytes from clients, before encryption.",
                  Number(server.traffic().received));
  text.AddCounter("varnic_sent_bytes_total", "Bytes to clients, before encryption.",
                  Number(server.traffic().sent));
}

void AddEdge(const net::EdgeCounters& edge, MetricsText& text) {
  text.AddCounter("varnic_resets_received_total", "HTTP/2 streams that clients have reset.",
                  Number(edge.resets_received));
  text.AddCounter("varnic_resets_sent_total", "HTTP/2 streams that the server has reset.",
                  Number(edge.resets_sent));
  text.BeginCounter("varnic_connections_ended_total",
                    "Connections that the server has ended, by the rule that they broke.");
  for (std::size_t i = 0; i < net::kEdgeRules; ++i) {
    const std::string_view rule = net::RuleName(static_cast<net::EdgeRule>(i));
    text.Add(Number(edge.ended_by[i]), {{"rule", std::string(rule)}});
  }
}

void AddProcess(MetricsText& text) {
  const ProcessUsage usage = ProcessUsage::Read();
  text.AddCounter("process_cpu_seconds_total", "User and system time used.", usage.cpu_seconds);
  text.AddGauge("process_resident_memory_bytes", "Resident memory.", usage.resident_bytes);
  text.AddGauge("process_virtual_memory_bytes", "Virtual memory.", usage.virtual_bytes);
  text.AddGauge("process_open_fds", "Open file descriptors.", usage.open_fds);
  text.AddGauge("process_max_fds", "Most file descriptors that may be open.", usage.max_fds);
  text.AddGauge("process_threads", "Threads.", usage.threads);
  text.AddGauge("process_start_time_seconds",
                "When the process began, in seconds of the Unix epoch.", usage.start_time_seconds);
}

}  // namespace

void ServerMetrics::AddGauge(std::string name, std::string help, Read read) {
  Add({std::move(name), std::move(help), /*is_counter=*/false, std::move(read)});
}

void ServerMetrics::AddCounter(std::string name, std::string help, Read read) {
  Add({std::move(name), std::move(help), /*is_counter=*/true, std::move(read)});
}

void ServerMetrics::Add(HostMetric metric) {
  VARNIC_CHECK(IsMetricName(metric.name));
  VARNIC_CHECK(!absl::StartsWith(metric.name, "varnic_") ||
               absl::StartsWith(metric.name, "varnic_host_"));
  VARNIC_CHECK(!absl::StartsWith(metric.name, "process_"));
  VARNIC_CHECK(metric.help.find('\n') == std::string::npos);
  VARNIC_CHECK(
      std::none_of(host_metrics_.begin(), host_metrics_.end(),
                   [&metric](const HostMetric& other) { return other.name == metric.name; }));
  host_metrics_.push_back(std::move(metric));
}

std::string ServerMetrics::Text() const {
  MetricsText text;
  AddCalls(server_.calls(), text);
  text.AddCounter("varnic_calls_denied_total", "Calls that the policy did not allow.",
                  Number(server_.denied_calls()));
  AddStreams(server_.calls(), text);
  AddStreamUsage(server_.streams(), text);
  AddConnections(server_, text);
  AddEdge(server_.edge_counters(), text);
  text.AddCounter("varnic_protobuf_complaints_total",
                  "What protobuf had to say against messages, in the whole process.",
                  Number(ProtobufLog::complaints()));
  AddProcess(text);
  for (const HostMetric& metric : host_metrics_) {
    if (metric.is_counter) {
      text.AddCounter(metric.name, metric.help, metric.read());
    } else {
      text.AddGauge(metric.name, metric.help, metric.read());
    }
  }
  return text.Serialize();
}

}  // namespace varnic
