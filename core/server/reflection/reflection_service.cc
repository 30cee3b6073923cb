#include "core/server/reflection/reflection_service.h"

#include <utility>

#include "core/server/builtin_service.h"
#include "varnic/builtin/grpc/reflection/v1/reflection.pb.h"
#include "varnic/builtin/grpc/reflection/v1alpha/reflection.pb.h"

namespace varnic {
namespace {

template <class Request>
const google::protobuf::ServiceDescriptor* ServiceOf() {
  static const google::protobuf::ServiceDescriptor& service =
      MakePublicService(*Request::descriptor()->file()->FindServiceByName("ServerReflection"));
  return &service;
}

}  // namespace

std::array<const google::protobuf::ServiceDescriptor*, 2> ReflectionService::Descriptors() {
  return {ServiceOf<builtin::grpc::reflection::v1::ServerReflectionRequest>(),
          ServiceOf<builtin::grpc::reflection::v1alpha::ServerReflectionRequest>()};
}

void ReflectionService::OnCall(const google::protobuf::MethodDescriptor& /*method*/,
                               net::GrpcServerCall& call) {
  ReflectionStream::Owner& owner = *this;
  auto stream = std::make_unique<ReflectionStream>(index_, call, owner);
  const ReflectionStream* key = stream.get();
  streams_.emplace(key, std::move(stream));
}

void ReflectionService::EndAll(const absl::Status& status) {
  for (const auto& [key, stream] : streams_) stream->End(status);
  streams_.clear();
}

}  // namespace varnic
