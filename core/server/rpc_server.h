#ifndef CORE_SERVER_RPC_SERVER_H_
#define CORE_SERVER_RPC_SERVER_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/status/statusor.h"
#include "core/common/rpc/service.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_server_connection.h"
#include "core/net/socket_stream.h"
#include "core/server/service_table.h"

namespace varnic {

struct ServerOptions {
  // The largest message that a client may send; a larger one ends its call with RESOURCE_EXHAUSTED.
  std::size_t max_message_bytes = 4 << 20;
  // Calls that one connection may have open at a time; more wait at the client.
  uint32_t max_concurrent_streams = 1024;
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
// The server serves unary methods. A call of a streaming method is answered with UNIMPLEMENTED.
class RpcServer : private net::GrpcServerConnection::Visitor {
 public:
  explicit RpcServer(const ServerOptions& options = {});
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;
  // Cancels the calls that are open and closes all connections. A service may still run the
  // closures of such calls afterwards.
  ~RpcServer() override;

  // `service` must live until the last Run() has returned. Fatal if a service of that name was
  // added before.
  void AddService(Service& service);

  // Listens on "unix:PATH" or "HOST:PORT" and returns the address with the port that it got. May be
  // called more than once. Connections are accepted as soon as the server runs.
  absl::StatusOr<std::string> Listen(const std::string& address);

  // Serves until Stop().
  void Run();
  void Stop();

  // Runs `task` on the RPC thread, later: at the latest when the server is destroyed. Any thread,
  // at any time in the server's life.
  void Post(std::function<void()> task);

  // For timers, signals and clients that are to run on the RPC thread.
  net::EventLoop& loop() { return loop_; }

 private:
  void OnAccept(std::unique_ptr<net::ByteStream> stream);
  void OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& head) override;
  void OnConnectionClosed(net::GrpcServerConnection& connection,
                          const absl::Status& status) override;

  const ServerOptions options_;
  net::EventLoop loop_;
  ServiceTable services_;
  absl::flat_hash_map<const net::GrpcServerConnection*, std::unique_ptr<net::GrpcServerConnection>>
      connections_;
  std::vector<std::unique_ptr<net::Listener>> listeners_;
};

}  // namespace varnic

#endif  // CORE_SERVER_RPC_SERVER_H_
