#include "core/server/rpc_server.h"

#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/net/address.h"
#include "core/server/unary_call.h"

namespace varnic {

RpcServer::RpcServer(const ServerOptions& options) : options_(options) {}

RpcServer::~RpcServer() {
  VARNIC_CHECK(loop_.IsLoopThread());
  listeners_.clear();
  connections_.clear();
  // Closures that a service has posted end their calls, which nobody hears any more.
  loop_.RunPending();
}

void RpcServer::AddService(Service& service) {
  VARNIC_CHECK(loop_.IsLoopThread());
  services_.Add(service);
}

absl::StatusOr<std::string> RpcServer::Listen(const std::string& address) {
  VARNIC_CHECK(loop_.IsLoopThread());
  const auto parsed = net::Address::Parse(address);
  if (!parsed.ok()) return parsed.status();
  auto listener = net::Listener::Listen(
      loop_, *parsed,
      [this](std::unique_ptr<net::ByteStream> stream) { OnAccept(std::move(stream)); });
  if (!listener.ok()) return listener.status();
  listeners_.push_back(*std::move(listener));
  return listeners_.back()->address().ToString();
}

void RpcServer::Run() {
  loop_.Run();
}

void RpcServer::Stop() {
  loop_.Stop();
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
  const auto method = services_.Find(head.path);
  if (!method.ok()) return call.Finish(method.status());
  if (method->descriptor->client_streaming() || method->descriptor->server_streaming()) {
    return call.Finish(absl::UnimplementedError(absl::StrCat(
        method->descriptor->full_name(), " is a streaming method; this server serves none")));
  }
  UnaryCall::Start(*method, call);
}

void RpcServer::OnConnectionClosed(net::GrpcServerConnection& connection,
                                   const absl::Status& /*status*/) {
  connections_.erase(&connection);
}

}  // namespace varnic
