#ifndef CORE_SERVER_METRICS_METRICS_ENDPOINT_H_
#define CORE_SERVER_METRICS_METRICS_ENDPOINT_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "absl/container/flat_hash_map.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/log_limiter.h"
#include "core/net/socket_stream.h"
#include "core/net/unix_admission.h"

namespace varnic {

struct MetricsEndpointOptions {
  // Who may connect to a Unix-domain socket: by default this process's own user.
  net::UnixAdmission unix_admission;
  // Those who come while there are as many are let go at once.
  std::size_t max_connections = 16;
  // How long a client may take to send its request, and again to take the answer.
  absl::Duration patience = absl::Seconds(10);
};

// Answers "GET /metrics" over HTTP/1, on a socket of its own and on the loop of the server; one
// request to a connection. All that a client can do is to ask for this one page: it is never read
// further than the head of its request, of 8 KiB at most, and gets its slot for a limited time.
// Over TCP, the request must be for this machine by name: web pages cannot read the page.
//
// RPC thread only.
class MetricsEndpoint {
 public:
  // The page, in Prometheus' text format.
  using Page = std::function<std::string()>;

  // Listens on "unix:PATH" or, for every user of the machine, on "HOST:PORT" of a loopback address.
  // The loop must outlive the endpoint, and so must whatever `page` uses.
  static absl::StatusOr<std::unique_ptr<MetricsEndpoint>> Listen(
      net::EventLoop& loop, const std::string& address, Page page,
      const MetricsEndpointOptions& options = {});

  // One that gets its connections from Serve() alone.
  MetricsEndpoint(net::EventLoop& loop, Page page, const MetricsEndpointOptions& options = {});
  MetricsEndpoint(const MetricsEndpoint&) = delete;
  MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;
  // Closes all connections. Not inside `page`.
  ~MetricsEndpoint();

  void Serve(std::unique_ptr<net::ByteStream> stream);

  // Where it listens, with the port that the system has picked; only after Listen().
  std::string address() const { return listener_->address().ToString(); }
  std::size_t open_connections() const { return connections_.size(); }

 private:
  class Connection;

  void LogRefusal(const net::Peer& peer);

  net::EventLoop& loop_;
  const Page page_;
  const MetricsEndpointOptions options_;
  net::LogLimiter refusals_;
  absl::flat_hash_map<const Connection*, std::unique_ptr<Connection>> connections_;
  std::unique_ptr<net::Listener> listener_;  // May be null.
};

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_METRICS_ENDPOINT_H_
