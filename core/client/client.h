#ifndef CORE_CLIENT_CLIENT_H_
#define CORE_CLIENT_CLIENT_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/client/call_deadlines.h"
#include "core/client/client_options.h"
#include "core/net/block_pool.h"
#include "core/net/event_loop.h"

namespace varnic {

class ConnectionKeeper;

// Calls the services of one server, over one connection, which is made at the first call and again
// at the first call after it was lost. A stream (EventSubscriber, CallbackAnswerer) keeps the
// client connecting for as long as it waits.
//
// Belongs to the thread of its loop. Call() and Cancel() may be used inside a call's callback;
// destroying the client there is not allowed.
class Client {
 public:
  using CallId = std::uint64_t;
  using Done = std::function<void(absl::Status)>;

  // What receives the answer of one call; destroyed after Done(), or without it by a client that
  // ends.
  class Answer : public net::Pooled {
   public:
    virtual ~Answer() = default;
    virtual google::protobuf::Message& response() = 0;
    // The call has ended. With a status other than OK, what `response()` holds says nothing.
    virtual void Done(absl::Status status) = 0;
  };

  // `target` is "unix:PATH" or "HOST:PORT"; what is wrong with it, or with the files for TLS, every
  // call says. The loop must outlive the client.
  Client(net::EventLoop& loop, const std::string& target, const ClientOptions& options = {});
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  // Calls that are open end with CANCELLED. What their callbacks call in here is not called any
  // more: the callback is destroyed unrun, so one that tries again and again comes to an end too.
  // Streams are gone by then: with one left, the program ends.
  ~Client();

  // Calls a unary method. `request` is used before this returns; `response` must live until the
  // call ends, which is when `done` runs: exactly once, on the loop, never inside Call() itself.
  // With a status other than OK, what `response` holds says nothing. `timeout` covers connecting
  // too.
  CallId Call(const google::protobuf::MethodDescriptor& method,
              const google::protobuf::Message& request, google::protobuf::Message& response,
              absl::Duration timeout, Done done);

  // The same with a response that belongs to the call. StartCall() of typed_call.h is easier to
  // use.
  CallId Start(const google::protobuf::MethodDescriptor& method,
               const google::protobuf::Message& request, absl::Duration timeout,
               std::unique_ptr<Answer> answer);

  // Ends a call with CANCELLED: its callback runs inside. Nothing happens if the call has ended.
  void Cancel(CallId call_id);

  // Calls a unary method and runs the loop until the call has ended; for programs that have nothing
  // else to do. Not inside a callback.
  absl::Status CallAndWait(const google::protobuf::MethodDescriptor& method,
                           const google::protobuf::Message& request,
                           google::protobuf::Message& response, absl::Duration timeout);

  net::EventLoop& loop() { return loop_; }
  const ClientOptions& options() const { return options_; }
  // Where a stream gets its connection; see resuming_stream.h.
  ConnectionKeeper& connections() { return *connections_; }

 private:
  class UnaryCall;

  std::shared_ptr<const std::string> PathOf(const google::protobuf::MethodDescriptor& method);
  // By value: it may come out of the call that ends here.
  void End(CallId call_id, absl::Status status);

  net::EventLoop& loop_;
  const ClientOptions options_;
  CallId last_call_id_ = 0;
  std::shared_ptr<const std::string> last_path_;  // Null before the first call.
  bool closing_ = false;
  CallDeadlines deadlines_;
  std::unique_ptr<ConnectionKeeper> connections_;
  absl::flat_hash_map<CallId, std::unique_ptr<UnaryCall>> calls_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_CLIENT_H_
