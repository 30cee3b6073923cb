#ifndef CORE_CLIENT_CLIENT_H_
#define CORE_CLIENT_CLIENT_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_client_connection.h"
#include "core/net/lifetime.h"
#include "core/net/socket_stream.h"
#include "core/net/tls_context.h"

namespace varnic {

struct ClientOptions {
  // The largest message that a server may send; a larger one ends its call with RESOURCE_EXHAUSTED.
  std::size_t max_message_bytes = 4 << 20;
  absl::Duration connect_timeout = absl::Seconds(20);
  // While a call is open and the server says nothing for so long, it is sent a ping; with no answer
  // in time either, the connection is lost and its calls fail with UNAVAILABLE. Ten seconds at
  // least; infinite: never. A server of another make may want no more than one ping in five
  // minutes.
  absl::Duration keepalive_time = absl::InfiniteDuration();
  absl::Duration keepalive_timeout = absl::Seconds(20);
  // With it, the target is a TCP address that is served with TLS.
  std::optional<net::TlsClientOptions> tls;
};

// Calls the services of one server, over one connection, which is made at the first call and again
// at the first call after it was lost.
//
// Belongs to the thread of its loop. Call() and Cancel() may be used inside a call's callback;
// destroying the client there is not allowed.
class Client {
 public:
  using CallId = std::uint64_t;
  using Done = std::function<void(absl::Status)>;

  // `target` is "unix:PATH" or "HOST:PORT"; what is wrong with it, or with the files for TLS, every
  // call says. The loop must outlive the client.
  Client(net::EventLoop& loop, const std::string& target, const ClientOptions& options = {});
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  // Calls that are open end with CANCELLED. What their callbacks call in here is not called any
  // more: the callback is destroyed unrun, so one that tries again and again comes to an end too.
  ~Client();

  // Calls a unary method. `request` is used before this returns; `response` must live until the
  // call ends, which is when `done` runs: exactly once, on the loop, never inside Call() itself.
  // With a status other than OK, what `response` holds says nothing. `timeout` covers connecting
  // too.
  CallId Call(const google::protobuf::MethodDescriptor& method,
              const google::protobuf::Message& request, google::protobuf::Message& response,
              absl::Duration timeout, Done done);

  // Ends a call with CANCELLED: its callback runs inside. Nothing happens if the call has ended.
  void Cancel(CallId call_id);

  // Calls a unary method and runs the loop until the call has ended; for programs that have nothing
  // else to do. Not inside a callback.
  absl::Status CallAndWait(const google::protobuf::MethodDescriptor& method,
                           const google::protobuf::Message& request,
                           google::protobuf::Message& response, absl::Duration timeout);

 private:
  class UnaryCall;
  class Connections;

  void Connect();
  void OnConnected(absl::StatusOr<std::unique_ptr<net::ByteStream>> stream);
  void FailWaitingCalls(const absl::Status& status);
  // By value: it may come out of the call that ends here.
  void End(CallId call_id, absl::Status status);

  net::EventLoop& loop_;
  const ClientOptions options_;
  const absl::StatusOr<net::Address> target_;
  absl::StatusOr<std::unique_ptr<net::TlsClientContext>> tls_;  // Null without TLS.
  CallId last_call_id_ = 0;
  bool closing_ = false;
  absl::flat_hash_map<CallId, std::unique_ptr<UnaryCall>> calls_;
  std::vector<CallId> waiting_;  // For the connection, in the order of the calls.
  std::unique_ptr<Connections> connections_;
  std::unique_ptr<net::Connector> connector_;  // While connecting.
  net::Timer connect_timer_;
  net::Lifetime lifetime_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_CLIENT_H_
