#ifndef CORE_SERVER_REFLECTION_REFLECTION_STREAM_H_
#define CORE_SERVER_REFLECTION_REFLECTION_STREAM_H_

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "absl/container/flat_hash_set.h"
#include "absl/status/status.h"
#include "core/net/grpc_server_connection.h"
#include "core/server/reflection/descriptor_index.h"

namespace varnic::builtin::grpc::reflection::v1 {
class ServerReflectionRequest;
class ServerReflectionResponse;
}  // namespace varnic::builtin::grpc::reflection::v1

namespace varnic {

// One open stream of ServerReflectionInfo: answers each request in its turn.
//
// While the client does not read, its requests wait: 1,024 of them and 256 KiB at most. One more
// resets the stream with ENHANCE_YOUR_CALM, which clients report as RESOURCE_EXHAUSTED. A request
// longer than 4 KiB, which would come back in its response, ends it with the same status. RPC
// thread only.
class ReflectionStream final : private net::GrpcServerCall::Visitor {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // The call has ended. To be destroyed in this call.
    virtual void OnStreamEnded(ReflectionStream& stream) = 0;
  };

  // Takes over `call`. The index and the owner outlive this.
  ReflectionStream(const DescriptorIndex& index, net::GrpcServerCall& call, Owner& owner);

  // Ends the call. The owner is not told; to be destroyed next.
  void End(const absl::Status& status) { call_.Finish(status); }

 private:
  using Request = builtin::grpc::reflection::v1::ServerReflectionRequest;
  using Response = builtin::grpc::reflection::v1::ServerReflectionResponse;

  void OnMessage(std::string_view message) override;
  void OnHalfClose() override;
  void OnRoom() override;
  void OnCancelled() override { owner_.OnStreamEnded(*this); }

  // Answers while there is room. May destroy this, as may whatever calls it.
  void AnswerWaiting();
  // False if the request cannot be read.
  bool Answer(const std::string& message);
  // The error of a response that is to be one.
  absl::Status FillIn(const Request& request, Response& response);
  absl::Status AddFiles(const absl::StatusOr<DescriptorIndex::File>& file, Response& response);
  void Finish(const absl::Status& status);

  const DescriptorIndex& index_;
  net::GrpcServerCall& call_;
  Owner& owner_;
  std::deque<std::string> waiting_;  // Requests, oldest first.
  std::size_t waiting_bytes_ = 0;
  bool half_closed_ = false;
  absl::flat_hash_set<DescriptorIndex::File> sent_;  // The client has them.
};

}  // namespace varnic

#endif  // CORE_SERVER_REFLECTION_REFLECTION_STREAM_H_
