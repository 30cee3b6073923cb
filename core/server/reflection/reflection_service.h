#ifndef CORE_SERVER_REFLECTION_REFLECTION_SERVICE_H_
#define CORE_SERVER_REFLECTION_REFLECTION_SERVICE_H_

#include <google/protobuf/descriptor.h>

#include <array>
#include <memory>

#include "absl/container/flat_hash_map.h"
#include "core/server/call_handler.h"
#include "core/server/reflection/descriptor_index.h"
#include "core/server/reflection/reflection_stream.h"

namespace varnic {

// grpc.reflection.v1.ServerReflection, and v1alpha's, whose messages are the same on the wire:
// tells tools which services there are and what they look like. RPC thread only.
class ReflectionService final : public CallHandler, private ReflectionStream::Owner {
 public:
  // One object of this class serves both.
  static std::array<const google::protobuf::ServiceDescriptor*, 2> Descriptors();

  ReflectionService() = default;
  ReflectionService(const ReflectionService&) = delete;
  ReflectionService& operator=(const ReflectionService&) = delete;

  // Tells of `service` from now on.
  void AddService(const google::protobuf::ServiceDescriptor& service) {
    index_.AddService(service);
  }

  void OnCall(const google::protobuf::MethodDescriptor& method, net::GrpcServerCall& call) override;
  void EndAll(const absl::Status& status) override;

 private:
  void OnStreamEnded(ReflectionStream& stream) override { streams_.erase(&stream); }

  DescriptorIndex index_;
  absl::flat_hash_map<const ReflectionStream*, std::unique_ptr<ReflectionStream>> streams_;
};

}  // namespace varnic

#endif  // CORE_SERVER_REFLECTION_REFLECTION_SERVICE_H_
