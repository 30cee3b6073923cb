#include "core/server/rpc_server.h"

#include <utility>

#include "absl/status/status.h"
#include "base/logging.h"
#include "core/common/rpc/fatal.h"
#include "core/net/address.h"
#include "core/net/edge/connection_cap.h"
#include "core/net/log_field.h"
#include "core/net/tls_socket.h"
#include "core/server/protobuf_log.h"
#include "core/server/unary_call.h"

namespace varnic {
namespace {

constexpr int kLastTurns = 100;
constexpr char kShuttingDown[] = "The host is shutting down";

}  // namespace

RpcServer::RpcServer(const ServerOptions& options)
    : options_(options), streams_(loop_, options.streams), drain_timer_(loop_) {
  ProtobufLog::Install();
  if (options.serve_health) AddBuiltIn(HealthService::Descriptor(), health_);
  if (!options.serve_reflection) return;
  for (const auto* descriptor : ReflectionService::Descriptors()) {
    AddBuiltIn(*descriptor, reflection_);
  }
}

RpcServer::~RpcServer() {
  VARNIC_CHECK(loop_.IsLoopThread());
  CloseConnections();
  // Closures that a service has posted end their calls, which nobody hears any more. They may post
  // others, but not for ever.
  for (int turn = 0; turn < kLastTurns && loop_.RunPending() > 0; ++turn) {
  }
}

void RpcServer::AddService(Service& service, const ServiceOptions& options) {
  VARNIC_CHECK(loop_.IsLoopThread());
  services_.Add(service, options, &calls_);
  Announce(*service.GetDescriptor());
}

void RpcServer::AddBuiltIn(const google::protobuf::ServiceDescriptor& descriptor,
                           CallHandler& handler) {
  services_.Add(descriptor, handler, &calls_);
  Announce(descriptor);
}

void RpcServer::Announce(const google::protobuf::ServiceDescriptor& descriptor) {
  health_.SetServing(descriptor.full_name(), true);
  if (options_.serve_reflection) reflection_.AddService(descriptor);
}

absl::StatusOr<std::string> RpcServer::Listen(const std::string& address,
                                              const ListenOptions& options) {
  VARNIC_CHECK(loop_.IsLoopThread());
  const auto parsed = net::Address::Parse(address);
  if (!parsed.ok()) return parsed.status();
  return Keep(
      options.tls.has_value()
          ? net::ListenTls(loop_, *parsed, *options.tls, Accepter(), [this] { return HasRoom(); })
          : net::Listener::Listen(loop_, *parsed, Accepter(), {options.unix_admission, false}));
}

absl::StatusOr<std::string> RpcServer::ListenOn(int fd, const ListenOptions& options) {
  VARNIC_CHECK(loop_.IsLoopThread());
  return Keep(options.tls.has_value()
                  ? net::AdoptTls(loop_, fd, *options.tls, Accepter(), [this] { return HasRoom(); })
                  : net::Listener::Adopt(loop_, fd, Accepter(), {options.unix_admission, false}));
}

net::Listener::OnAccept RpcServer::Accepter() {
  return [this](std::unique_ptr<net::ByteStream> stream) { OnAccept(std::move(stream)); };
}

absl::StatusOr<std::string> RpcServer::Keep(
    absl::StatusOr<std::unique_ptr<net::Listener>> listener) {
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
  loop_.Run(options_.busy_poll);
  CloseConnections();
}

void RpcServer::CloseConnections() {
  StopListening();
  connections_.clear();
  refused_.Clear();
  streams_.EndAll(absl::UnavailableError(kShuttingDown));
}

void RpcServer::Stop() {
  loop_.Stop();
}

void RpcServer::Drain(absl::Duration patience, std::function<void()> on_drained) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (std::exchange(draining_, true)) {
    on_drained_ = nullptr;
    if (drained_) return Stop();
    return EndDrain("told to stop again");
  }
  on_drained_ = std::move(on_drained);
  if (logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
        << "Draining connections=" << connections_.size() << " streams=" << streams_.open_streams()
        << " patience=" << absl::FormatDuration(patience);
  }
  StopListening();
  health_.EndAll(absl::UnavailableError(kShuttingDown));
  reflection_.EndAll(absl::UnavailableError(kShuttingDown));
  streams_.EndAll(absl::UnavailableError(kShuttingDown));
  for (const auto& [key, connection] : connections_) connection->SendGoaway();
  if (connections_.empty()) return EndDrain("nothing is left");
  drain_timer_.Start(patience, [this] { EndDrain("the time is up"); });
}

void RpcServer::EndDrain(const char* reason) {
  if (std::exchange(drained_, true)) return;
  drain_timer_.Cancel();
  if (logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
        << "Drained connections_left=" << connections_.size() << net::LogField("reason", reason);
  }
  if (on_drained_ == nullptr) return Stop();
  std::exchange(on_drained_, nullptr)();
}

void RpcServer::Post(std::function<void()> task) {
  loop_.Post(std::move(task));
}

bool RpcServer::HasRoom() const {
  std::size_t held = connections_.size();
  for (const auto& listener : listeners_) held += listener->handshakes();
  return held < net::ConnectionCap(options_.max_connections);
}

void RpcServer::OnAccept(std::unique_ptr<net::ByteStream> stream) {
  if (!HasRoom()) return Refuse(std::move(stream));
  net::GrpcServerOptions options;
  options.http2.max_concurrent_streams = options_.max_concurrent_streams;
  options.http2.max_header_list_bytes = options_.max_header_list_bytes;
  options.http2.floods = options_.floods;
  options.http2.edge_counters = &edge_counters_;
  options.max_message_bytes = options_.max_message_bytes;
  options.max_unfinished_bytes = options_.max_unfinished_bytes;
  options.limits = options_.connections;
  options.observer = &calls_.ForUnknown();
  net::GrpcServerConnection::Visitor& visitor = *this;
  ++accepted_connections_;
  auto connection = std::make_unique<net::GrpcServerConnection>(
      loop_, CountTraffic(std::move(stream), traffic_), options, visitor);
  LogConnection("Accepted a connection", connection->peer());
  connections_.emplace(connection.get(), std::move(connection));
}

void RpcServer::LogConnection(const char* what, const net::Peer& peer, const std::string& more) {
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_VERBOSE)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_VERBOSE).stream()
      << what << " " << peer.ToString() << more;
}

void RpcServer::Refuse(std::unique_ptr<net::ByteStream> stream) {
  ++formerly_refused_;
  edge_counters_.CountEnd(net::EdgeRule::kConnections);
  LogEnd(stream->peer(), net::EdgeRule::kConnections);
  refused_.Add(std::move(stream));
}

void RpcServer::LogEnd(const net::Peer& peer, net::EdgeRule rule) {
  const std::optional<std::uint64_t> left_out = ends_logged_.Admit();
  if (left_out && logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
        << "Ended a connection" << net::LogField("rule", net::RuleName(rule)) << " "
        << peer.ToString() << net::LogLimiter::More(*left_out);
  }
}

void RpcServer::OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& head) {
  const absl::StatusOr<const ServiceTable::Method*> found = services_.Find(head.path);
  call.Observe(found.ok() ? (*found)->counters->calls : calls_.ForUnknown());
  if (draining_) return call.Finish(absl::UnavailableError(kShuttingDown));
  std::string role;
  if (policy_ != nullptr) {
    absl::StatusOr<std::string> authorized = policy_->Authorize(*call.peer(), head.path);
    if (!authorized.ok()) return call.Finish(authorized.status());
    role = *std::move(authorized);
  }
  if (!found.ok()) return call.Finish(found.status());
  const ServiceTable::Method& method = **found;
  if (method.is_stream()) call.Observe(method.counters->OpenStream());
  if (method.handler != nullptr) return method.handler->OnCall(*method.descriptor, call);
  if (method.is_stream()) return streams_.Open(method, call, head, std::move(role));
  UnaryCall::Start(method, call, call.RequestMetadata(head), std::move(role));
}

void RpcServer::OnConnectionClosed(net::GrpcServerConnection& connection,
                                   const absl::Status& status) {
  LogConnection("A connection has ended", connection.peer(),
                net::LogField("reason", status.ok() ? "closed" : std::string(status.message())));
  if (connection.ended_by().has_value()) LogEnd(connection.peer(), *connection.ended_by());
  connections_.erase(&connection);
  if (draining_ && connections_.empty()) EndDrain("nothing is left");
}

}  // namespace varnic
