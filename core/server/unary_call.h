#ifndef CORE_SERVER_UNARY_CALL_H_
#define CORE_SERVER_UNARY_CALL_H_

#include <google/protobuf/message.h>
#include <google/protobuf/service.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "core/net/block_pool.h"
#include "core/net/grpc_server_connection.h"
#include "core/server/server_controller.h"
#include "core/server/service_table.h"

namespace varnic {

// One unary call, from its request to its answer: parses the request, calls the service, and is
// itself the completion closure. Keeps request, response and controller for as long as the service
// may use them, even when nobody waits for the answer any more.
//
// Destroys itself: once its closure has run, or, if the service was never called, when the call
// ends. A service that never runs a call's closure leaks the call. RPC thread only.
class UnaryCall final : private net::GrpcServerCall::Visitor,
                        private google::protobuf::Closure,
                        public net::Pooled {
 public:
  // Takes over `call`, which the peer makes in `role`.
  static void Start(const ServiceTable::Method& method, net::GrpcServerCall& call,
                    std::shared_ptr<const net::Metadata> metadata, std::string role);

 private:
  UnaryCall(const ServiceTable::Method& method, net::GrpcServerCall& call,
            std::shared_ptr<const net::Metadata> metadata, std::string role);
  ~UnaryCall() override;

  void OnMessage(std::string_view message) override;
  void OnHalfClose() override;
  void OnCancelled() override;
  void Run() override;

  // Ends a call that was never handed to the service.
  void Refuse(const absl::Status& status);
  absl::Status FinalStatus() const;

  // Ends the call, which the service has answered.
  void Answer();
  void SendResponse();
  // Leaves the messages to the next call.
  void GiveBack();

  const ServiceTable::Method& method_;                  // May be gone when `call_` is.
  net::GrpcServerCall* call_;                           // Null once nobody waits for the answer.
  std::unique_ptr<google::protobuf::Message> request_;  // Null until the message has come.
  std::size_t request_bytes_ = 0;
  std::unique_ptr<google::protobuf::Message> response_;
  std::size_t response_bytes_ = 0;
  bool called_ = false;
  ServerController controller_;  // Last: the closure that it may run in the end may use the rest.
};

}  // namespace varnic

#endif  // CORE_SERVER_UNARY_CALL_H_
