#ifndef CORE_SERVER_HEALTH_HEALTH_SERVICE_H_
#define CORE_SERVER_HEALTH_HEALTH_SERVICE_H_

#include <memory>
#include <string>

#include "absl/container/flat_hash_map.h"
#include "absl/strings/string_view.h"
#include "core/server/call_handler.h"

namespace varnic {

// grpc.health.v1.Health: tells probes and load balancers which services of the host take calls.
//
// The host as a whole has the empty name and is known from the start; its status is its own, and
// says nothing about that of any service. A watcher that does not read gets the newest status in
// the end, and not all those between. RPC thread only.
class HealthService final : public CallHandler {
 public:
  static const google::protobuf::ServiceDescriptor& Descriptor();

  HealthService();
  HealthService(const HealthService&) = delete;
  HealthService& operator=(const HealthService&) = delete;
  ~HealthService() override;

  // Whether `service` takes calls, as far as clients are told. A name that is new becomes known.
  void SetServing(absl::string_view service, bool serving);

  void OnCall(const google::protobuf::MethodDescriptor& method, net::GrpcServerCall& call) override;

  // From now on nothing is serving, whatever SetServing() says. Watchers hear of it before their
  // end.
  void EndAll(const absl::Status& status) override;

 private:
  class Call;
  enum class Health { kServing, kNotServing, kUnknown };

  Health HealthOf(const std::string& service) const;

  absl::flat_hash_map<std::string, bool> serving_;  // By the names of services.
  bool ended_ = false;
  absl::flat_hash_map<const Call*, std::unique_ptr<Call>> calls_;
};

}  // namespace varnic

#endif  // CORE_SERVER_HEALTH_HEALTH_SERVICE_H_
