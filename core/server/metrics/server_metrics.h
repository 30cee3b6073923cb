#ifndef CORE_SERVER_METRICS_SERVER_METRICS_H_
#define CORE_SERVER_METRICS_SERVER_METRICS_H_

#include <functional>
#include <string>
#include <vector>

#include "core/server/rpc_server.h"

namespace varnic {

// What one server measures, what its host adds, and what the process uses, as a page that
// Prometheus reads; docs/operations.md lists the metrics.
//
//   varnic::ServerMetrics metrics(server);
//   metrics.AddGauge("my_host_open_questions", "Questions that nobody has answered yet.",
//                    [&] { return static_cast<double>(caller.open_calls()); });
//   auto endpoint = varnic::MetricsEndpoint::Listen(server.loop(), "127.0.0.1:9464",
//                                                   [&] { return metrics.Text(); });
//
// The server must outlive it. Costs nothing while nobody asks for the text. RPC thread only.
class ServerMetrics {
 public:
  using Read = std::function<double()>;

  explicit ServerMetrics(const RpcServer& server) : server_(server) {}
  ServerMetrics(const ServerMetrics&) = delete;
  ServerMetrics& operator=(const ServerMetrics&) = delete;

  // A metric of the host's own. `read` is called for every text, and must not block. Fatal if
  // `name` is none that Prometheus takes, if it is taken, or begins as this library's own do
  // ("process_", "varnic_" but for varnic-host's "varnic_host_"), or if `help` is more than a line.
  void AddGauge(std::string name, std::string help, Read read);
  // The same for a number that only ever grows; such names end in "_total".
  void AddCounter(std::string name, std::string help, Read read);

  // All metrics as they are now.
  std::string Text() const;

 private:
  struct HostMetric {
    std::string name;
    std::string help;
    bool is_counter;
    Read read;
  };

  void Add(HostMetric metric);

  const RpcServer& server_;
  std::vector<HostMetric> host_metrics_;
};

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_SERVER_METRICS_H_
