#include "core/server/health/health_service.h"

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/net/frame_message.h"
#include "core/server/builtin_service.h"
#include "varnic/builtin/grpc/health/v1/health.pb.h"

namespace varnic {
namespace {

using builtin::grpc::health::v1::HealthCheckRequest;
using builtin::grpc::health::v1::HealthCheckResponse;
using builtin::grpc::health::v1::HealthListResponse;

// A watcher makes the host keep the name.
constexpr std::size_t kMaxNameBytes = 1024;
// What clients are promised by the interface.
constexpr std::size_t kMaxListed = 100;

}  // namespace

// One call of any of the methods, which all take one message.
class HealthService::Call final : private net::GrpcServerCall::Visitor {
 public:
  Call(HealthService& service, const google::protobuf::MethodDescriptor& method,
       net::GrpcServerCall& call)
      : service_(service), method_(method), call_(call) {
    call_.Accept(*this);
  }

  // Tells a watcher what it was not told yet. The call goes on.
  void MaybeSend() {
    if (!watching_ || !call_.HasRoom()) return;
    const Health health = service_.HealthOf(*name_);
    if (std::exchange(told_, health) != health) call_.Send(net::FrameMessage(Response(health)));
  }

  // To be destroyed next.
  void End(const absl::Status& status) {
    MaybeSend();
    call_.Finish(status);
  }

 private:
  void OnMessage(std::string_view message) override;
  void OnHalfClose() override;
  void OnRoom() override { MaybeSend(); }
  void OnCancelled() override { service_.calls_.erase(this); }

  void Check();
  void List();
  // Destroys this.
  void Finish(const absl::Status& status) {
    call_.Finish(status);
    service_.calls_.erase(this);
  }

  static HealthCheckResponse Response(Health health);

  HealthService& service_;
  const google::protobuf::MethodDescriptor& method_;
  net::GrpcServerCall& call_;
  std::optional<std::string> name_;  // None until the request has come.
  bool watching_ = false;
  std::optional<Health> told_;  // What the watcher was told last.
};

void HealthService::Call::OnMessage(std::string_view message) {
  if (name_.has_value()) {
    return Finish(absl::UnimplementedError(
        absl::StrCat("More than one request message for ", method_.full_name())));
  }
  HealthCheckRequest request;
  if (!request.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
    return Finish(absl::InternalError(
        absl::StrCat("The request is not a serialised ", method_.input_type()->full_name())));
  }
  if (request.service().size() > kMaxNameBytes) {
    return Finish(absl::InvalidArgumentError(
        absl::StrCat("The name of a service is longer than ", kMaxNameBytes, " bytes")));
  }
  name_ = std::move(*request.mutable_service());
}

void HealthService::Call::OnHalfClose() {
  if (!name_.has_value()) {
    return Finish(
        absl::UnimplementedError(absl::StrCat("No request message for ", method_.full_name())));
  }
  if (method_.name() == "Check") return Check();
  if (method_.name() == "List") return List();
  watching_ = true;
  MaybeSend();
}

void HealthService::Call::Check() {
  const Health health = service_.HealthOf(*name_);
  if (health == Health::kUnknown) {
    return Finish(absl::NotFoundError(absl::StrCat("Unknown service ", *name_)));
  }
  call_.Send(net::FrameMessage(Response(health)));
  Finish(absl::OkStatus());
}

void HealthService::Call::List() {
  if (service_.serving_.size() > kMaxListed) {
    return Finish(absl::ResourceExhaustedError(
        absl::StrCat("The host has more than ", kMaxListed, " services")));
  }
  HealthListResponse response;
  for (const auto& [name, serving] : service_.serving_) {
    (*response.mutable_statuses())[name] = Response(service_.HealthOf(name));
  }
  call_.Send(net::FrameMessage(response));
  Finish(absl::OkStatus());
}

HealthCheckResponse HealthService::Call::Response(Health health) {
  HealthCheckResponse response;
  switch (health) {
    case Health::kServing:
      response.set_status(HealthCheckResponse::SERVING);
      break;
    case Health::kNotServing:
      response.set_status(HealthCheckResponse::NOT_SERVING);
      break;
    case Health::kUnknown:
      response.set_status(HealthCheckResponse::SERVICE_UNKNOWN);
      break;
  }
  return response;
}

const google::protobuf::ServiceDescriptor& HealthService::Descriptor() {
  static const google::protobuf::ServiceDescriptor& service =
      MakePublicService(*HealthCheckRequest::descriptor()->file()->FindServiceByName("Health"));
  return service;
}

HealthService::HealthService() {
  SetServing("", true);
}

HealthService::~HealthService() = default;

void HealthService::SetServing(absl::string_view service, bool serving) {
  serving_[service] = serving;
  for (const auto& [key, call] : calls_) call->MaybeSend();
}

HealthService::Health HealthService::HealthOf(const std::string& service) const {
  const auto found = serving_.find(service);
  if (found == serving_.end()) return Health::kUnknown;
  return found->second && !ended_ ? Health::kServing : Health::kNotServing;
}

void HealthService::OnCall(const google::protobuf::MethodDescriptor& method,
                           net::GrpcServerCall& call) {
  auto owned = std::make_unique<Call>(*this, method, call);
  const Call* key = owned.get();
  calls_.emplace(key, std::move(owned));
}

void HealthService::EndAll(const absl::Status& status) {
  ended_ = true;
  for (const auto& [key, call] : calls_) call->End(status);
  calls_.clear();
}

}  // namespace varnic
