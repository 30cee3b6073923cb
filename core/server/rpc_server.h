#ifndef CORE_SERVER_RPC_SERVER_H_
#define CORE_SERVER_RPC_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/common/rpc/service.h"
#include "core/net/edge/connection_limits.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/flood_limits.h"
#include "core/net/edge/refused_connections.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_server_connection.h"
#include "core/net/log_limiter.h"
#include "core/net/socket_stream.h"
#include "core/net/tls_context.h"
#include "core/net/unix_admission.h"
#include "core/server/health/health_service.h"
#include "core/server/loop_scheduler.h"
#include "core/server/metrics/call_counters.h"
#include "core/server/metrics/traffic.h"
#include "core/server/policy_file.h"
#include "core/server/reflection/reflection_service.h"
#include "core/server/service_table.h"
#include "core/server/stream_table.h"

namespace varnic {

struct ServerOptions {
  // The largest message that a client may send; a larger one ends its call with RESOURCE_EXHAUSTED.
  std::size_t max_message_bytes = 4 << 20;
  // Bytes of messages whose end has not come, on all calls of a connection together, but at least
  // one message of the largest size; the call whose data goes past it ends with RESOURCE_EXHAUSTED.
  std::size_t max_unfinished_bytes = 16 << 20;
  // Calls that one connection may have open at a time; more wait at the client.
  uint32_t max_concurrent_streams = 1024;
  // Header fields of a request, with 32 bytes for each besides its own; a call that has more ends
  // with RESOURCE_EXHAUSTED.
  uint32_t max_header_list_bytes = 16 << 10;
  // Connections that are open at a time, with those in a TLS handshake, or as many as leave the
  // process a quarter of its file descriptors, 256 at most; one more is told so and closed.
  std::size_t max_connections = 10'000;
  // How long a connection may be silent, idle, or not read what is sent to it.
  net::ConnectionLimits connections;
  // What a connection may bring that is no call; one that brings more is ended with a GOAWAY.
  net::FloodLimits floods;
  // What one open stream of a client may make the host keep.
  StreamLimits streams;
  // How long the RPC thread looks for work before it sleeps. Some tens of microseconds answer a
  // client that calls again and again sooner, and take a core's time between its calls.
  // Zero: it sleeps at once.
  absl::Duration busy_poll = absl::ZeroDuration();
  // Answers health checks (grpc.health.v1.Health); see RpcServer::health().
  bool serve_health = true;
  // Tells clients what the services look like (grpc.reflection.v1 and v1alpha), for tools that have
  // no proto files.
  bool serve_reflection = false;
};

// How one address is served.
struct ListenOptions {
  // Who may connect to a Unix-domain socket: by default this process's own user.
  net::UnixAdmission unix_admission;
  // With it, a TCP address is served with TLS, and need not be a loopback address.
  std::optional<net::TlsServerOptions> tls;
};

// Serves services over gRPC, on Unix-domain sockets and TCP.
//
//   varnic::RpcServer server;
//   server.AddService(my_profile_host);
//   auto address = server.Listen("unix:/run/user/1000/host.sock");
//   server.Run();
//
// The thread that calls Run() is the RPC thread: services, streams and their callables run on it,
// one at a time, and nothing on it may block. Post() may be called from any thread; everything else
// belongs to the RPC thread, or to the thread that sets the server up before Run() and takes it
// down after.
//
// What a client sends on a stream reaches the service's stream object only after a guard has looked
// at it: nothing that a peer sends can stop the process (see docs/wire.md).
class RpcServer : private net::GrpcServerConnection::Visitor {
 public:
  explicit RpcServer(const ServerOptions& options = {});
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;
  // Cancels the calls that are open and closes all connections. A service may still run the
  // closures of such calls afterwards.
  ~RpcServer() override;

  // `service` must live until the last Run() has returned, which ends every call and every stream.
  // Fatal if a service of that name was added before.
  void AddService(Service& service, const ServiceOptions& options = {});

  // Listens on "unix:PATH" or "HOST:PORT" and returns the address with the port that it got. May be
  // called more than once. Connections are accepted as soon as the server runs.
  absl::StatusOr<std::string> Listen(const std::string& address, const ListenOptions& options = {});

  // The same on a socket that this process was started with, as by a service manager; see
  // net::InheritedAddress(). The server owns `fd` if this succeeds. Its file, if it has one, is not
  // the server's: it keeps its mode, and stays when the server goes.
  absl::StatusOr<std::string> ListenOn(int fd, const ListenOptions& options = {});

  // From now on a client may make only the calls that the policy in this file allows it; see
  // AccessPolicy. An error names what is wrong in the file.
  absl::Status UsePolicy(const std::string& path);

  std::size_t open_connections() const { return connections_.size(); }
  // Counts the connections that were let in, and those that were not.
  std::uint64_t accepted_connections() const { return accepted_connections_; }
  std::uint64_t refused_connections() const;
  // Counts the calls that the policy did not allow.
  std::uint64_t denied_calls() const { return policy_ == nullptr ? 0 : policy_->denied(); }

  // Serves until Stop(); then closes all connections, which ends the calls and the streams on them.
  void Run();
  void Stop();

  // Stops when what is going on has ended: takes no new connections and calls, ends every stream
  // with UNAVAILABLE, lets calls finish, and stops when the last connection is done, or after
  // `patience`. A second Drain() stops at once. RPC thread only.
  //
  // With `on_drained`, which runs once at the most, it does not stop then: whoever has more to end
  // on the loop calls Stop() after that.
  void Drain(absl::Duration patience, std::function<void()> on_drained = nullptr);

  // Runs `task` on the RPC thread, later: at the latest when the server is destroyed. Any thread,
  // at any time in the server's life.
  void Post(std::function<void()> task);

  // What clients are told of the services: all that are added are serving, and the host as a whole,
  // until the host says otherwise with SetServing(), or Drain() begins.
  HealthService& health() { return health_; }

  // For what the host keeps beside its streams, such as a CallbackCaller.
  Scheduler& scheduler() { return scheduler_; }
  const StreamTable& streams() const { return streams_; }
  // What is counted here for ServerMetrics (core/server/metrics/server_metrics.h).
  const CallCounters& calls() const { return calls_; }
  const Traffic& traffic() const { return traffic_; }
  const net::EdgeCounters& edge_counters() const { return edge_counters_; }
  // For timers, signals and clients that are to run on the RPC thread.
  net::EventLoop& loop() { return loop_; }

 private:
  void AddBuiltIn(const google::protobuf::ServiceDescriptor& descriptor, CallHandler& handler);
  // Lets health checks and reflection know of a service.
  void Announce(const google::protobuf::ServiceDescriptor& descriptor);
  net::Listener::OnAccept Accepter();
  // Takes a listener in, and returns its address.
  absl::StatusOr<std::string> Keep(absl::StatusOr<std::unique_ptr<net::Listener>> listener);
  void StopListening();
  void EndDrain(const char* reason);
  void CloseConnections();
  // At the debug level only: how many come and go is the peers' choice.
  static void LogConnection(const char* what, const net::Peer& peer, const std::string& more = "");
  // For one more connection. Those in a TLS handshake take up as much.
  bool HasRoom() const;
  void OnAccept(std::unique_ptr<net::ByteStream> stream);
  // Lets a connection go that is one too many.
  void Refuse(std::unique_ptr<net::ByteStream> stream);
  void LogEnd(const net::Peer& peer, net::EdgeRule rule);
  void OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& head) override;
  void OnConnectionClosed(net::GrpcServerConnection& connection,
                          const absl::Status& status) override;

  const ServerOptions options_;
  net::EventLoop loop_;
  LoopScheduler scheduler_{loop_};
  ServiceTable services_;
  CallCounters calls_;
  Traffic traffic_;
  net::EdgeCounters edge_counters_;
  net::LogLimiter ends_logged_;
  std::uint64_t accepted_connections_ = 0;
  StreamTable streams_;
  HealthService health_;
  ReflectionService reflection_;
  absl::flat_hash_map<const net::GrpcServerConnection*, std::unique_ptr<net::GrpcServerConnection>>
      connections_;
  net::RefusedConnections refused_{loop_};
  std::vector<std::unique_ptr<net::Listener>> listeners_;
  std::uint64_t formerly_refused_ = 0;  // By listeners that are gone, and here.
  std::unique_ptr<PolicyFile> policy_;  // Null while everybody who may connect may call.
  bool draining_ = false;
  bool drained_ = false;
  std::function<void()> on_drained_;
  net::Timer drain_timer_;
};

}  // namespace varnic

#endif  // CORE_SERVER_RPC_SERVER_H_
