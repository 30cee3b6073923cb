#include "core/server/rpc_server.h"

#include <utility>

#include "absl/status/status.h"
#include "core/common/rpc/fatal.h"
#include "core/net/address.h"
#include "core/net/tls_socket.h"
#include "core/server/unary_call.h"

namespace varnic {
namespace {

constexpr int kLastTurns = 100;
constexpr char kShuttingDown[] = "The host is shutting down";

}  // namespace

RpcServer::RpcServer(const ServerOptions& options)
    : options_(options), streams_(loop_, options.streams), drain_timer_(loop_) {}

RpcServer::~RpcServer() {
  VARNIC_CHECK(loop_.IsLoopThread());
  CloseConnections();
  // Closures that a service has posted end their calls, which nobody hears any more. They may post
  // others, but not for ever.
  for (int turn = 0; turn < kLastTurns && loop_.RunPending() > 0; ++turn) {
  }
}

void RpcServer::AddService(Service& service) {
  VARNIC_CHECK(loop_.IsLoopThread());
  services_.Add(service);
}

absl::StatusOr<std::string> RpcServer::Listen(const std::string& address,
                                              const ListenOptions& options) {
  VARNIC_CHECK(loop_.IsLoopThread());
  const auto parsed = net::Address::Parse(address);
  if (!parsed.ok()) return parsed.status();
  auto on_accept = [this](std::unique_ptr<net::ByteStream> stream) { OnAccept(std::move(stream)); };
  auto listener = options.tls.has_value() ? net::ListenTls(loop_, *parsed, *options.tls, on_accept)
                                          : net::Listener::Listen(loop_, *parsed, on_accept,
                                                                  {options.unix_admission, false});
  if (!listener.ok()) return listener.status();
  listeners_.push_back(*std::move(listener));
  return listeners_.back()->address().ToString();
}

absl::Status RpcServer::UsePolicy(const std::string& path) {
  VARNIC_CHECK(loop_.IsLoopThread());
  absl::StatusOr<std::unique_ptr<PolicyFile>> policy = PolicyFile::Load(path);
  if (!policy.ok()) return policy.status();
  policy_ = *std::move(policy);
  return absl::OkStatus();
}

std::uint64_t RpcServer::refused_connections() const {
  std::uint64_t refused = formerly_refused_;
  for (const auto& listener : listeners_) refused += listener->refused();
  return refused;
}

void RpcServer::StopListening() {
  formerly_refused_ = refused_connections();
  listeners_.clear();
}

void RpcServer::Run() {
  loop_.Run();
  CloseConnections();
}

void RpcServer::CloseConnections() {
  StopListening();
  connections_.clear();
  streams_.EndAll(absl::UnavailableError(kShuttingDown));
}

void RpcServer::Stop() {
  loop_.Stop();
}

void RpcServer::Drain(absl::Duration patience) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (std::exchange(draining_, true)) return Stop();
  StopListening();
  streams_.EndAll(absl::UnavailableError(kShuttingDown));
  for (const auto& [key, connection] : connections_) connection->SendGoaway();
  if (connections_.empty()) return Stop();
  drain_timer_.Start(patience, [this] { Stop(); });
}

void RpcServer::Post(std::function<void()> task) {
  loop_.Post(std::move(task));
}

void RpcServer::OnAccept(std::unique_ptr<net::ByteStream> stream) {
  net::GrpcServerOptions options;
  options.http2.max_concurrent_streams = options_.max_concurrent_streams;
  options.max_message_bytes = options_.max_message_bytes;
  net::GrpcServerConnection::Visitor& visitor = *this;
  auto connection =
      std::make_unique<net::GrpcServerConnection>(loop_, std::move(stream), options, visitor);
  connections_.emplace(connection.get(), std::move(connection));
}

void RpcServer::OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& head) {
  if (draining_) return call.Finish(absl::UnavailableError(kShuttingDown));
  std::string role;
  if (policy_ != nullptr) {
    absl::StatusOr<std::string> authorized = policy_->Authorize(*call.peer(), head.path);
    if (!authorized.ok()) return call.Finish(authorized.status());
    role = *std::move(authorized);
  }
  const auto method = services_.Find(head.path);
  if (!method.ok()) return call.Finish(method.status());
  if (method->descriptor->client_streaming() || method->descriptor->server_streaming()) {
    return streams_.Open(*method, call, head);
  }
  UnaryCall::Start(*method, call, std::move(role));
}

void RpcServer::OnConnectionClosed(net::GrpcServerConnection& connection,
                                   const absl::Status& /*status*/) {
  connections_.erase(&connection);
  if (draining_ && connections_.empty()) Stop();
}

}  // namespace varnic
