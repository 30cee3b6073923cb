#ifndef CORE_CLIENT_TYPED_CALL_H_
#define CORE_CLIENT_TYPED_CALL_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <functional>
#include <memory>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/client/client.h"

// Unary calls whose answer comes as a value: what generated clients are made of.
namespace varnic {

template <class Response>
using OnAnswer = std::function<void(absl::StatusOr<Response>)>;

// Holds the answer of a call until it is whole.
template <class Response>
class TypedAnswer final : public Client::Answer {
 public:
  explicit TypedAnswer(OnAnswer<Response> done) : done_(std::move(done)) {}

  google::protobuf::Message& response() override { return response_; }
  void Done(absl::Status status) override {
    if (status.ok()) {
      done_(std::move(response_));
    } else {
      done_(std::move(status));
    }
  }

 private:
  Response response_;
  const OnAnswer<Response> done_;
};

// Client::Call() with the answer as `done`'s argument. Response is the method's output type.
// Client::Cancel() ends it, with CANCELLED.
template <class Response>
Client::CallId StartCall(Client& client, const google::protobuf::MethodDescriptor& method,
                         const google::protobuf::Message& request, absl::Duration timeout,
                         OnAnswer<Response> done) {
  return client.Start(method, request, timeout,
                      std::make_unique<TypedAnswer<Response>>(std::move(done)));
}

// Client::CallAndWait() with the answer as its result. Not inside a callback.
template <class Response>
absl::StatusOr<Response> CallAndWait(Client& client,
                                     const google::protobuf::MethodDescriptor& method,
                                     const google::protobuf::Message& request,
                                     absl::Duration timeout) {
  Response response;
  absl::Status status = client.CallAndWait(method, request, response, timeout);
  if (!status.ok()) return status;
  return response;
}

}  // namespace varnic

#endif  // CORE_CLIENT_TYPED_CALL_H_
