#ifndef CORE_SERVER_CALL_HANDLER_H_
#define CORE_SERVER_CALL_HANDLER_H_

#include <google/protobuf/descriptor.h>

#include "absl/status/status.h"
#include "core/net/grpc_server_connection.h"

namespace varnic {

// Answers the calls of a gRPC service as they come from the wire, without the dispatch and the
// stream classes that a host's own services have. For what the server itself tells its clients.
//
// Outlives the server's connections. RPC thread only.
class CallHandler {
 public:
  virtual ~CallHandler() = default;

  // A new call, which the access policy allows: Accept() it or Finish() it.
  virtual void OnCall(const google::protobuf::MethodDescriptor& method,
                      net::GrpcServerCall& call) = 0;

  // Ends every call with `status`. The server takes no calls afterwards.
  virtual void EndAll(const absl::Status& status) = 0;
};

}  // namespace varnic

#endif  // CORE_SERVER_CALL_HANDLER_H_
