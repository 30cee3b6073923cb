#ifndef BENCH_SIDE_BY_SIDE_SCENARIO_HOST_H_
#define BENCH_SIDE_BY_SIDE_SCENARIO_HOST_H_

#include <cstddef>
#include <map>
#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "bench/side_by_side/scenario.h"
#include "core/common/rpc/scheduler.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/server/server_controller.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic::bench {

// The scenario, served by this framework. `scheduler` is the server's.
class ScenarioHost : public ::rpc::ProfileRpc {
 public:
  explicit ScenarioHost(Scheduler& scheduler) : caller_(scheduler) {}

  void Name(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value(request->value());
    done->Run();
  }

  void Path(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value(std::to_string(Publish(*request)));
    done->Run();
  }

  void IsDefault(google::protobuf::RpcController* controller, const ProfileId* request,
                 google::protobuf::BoolValue* /*response*/,
                 google::protobuf::Closure* done) override {
    if (CallbackStream<::rpc::CanAccessFile>::stream_map_.count(request) == 0) {
      ServerController::From(controller).SetStatus(absl::NotFoundError("Nobody answers"));
    } else {
      const ProfileId& key = keys_.try_emplace(request->value(), *request).first->second;
      for (int i = 0; i < OpenQuestions(request->value()); ++i) Ask(key);
    }
    done->Run();
  }

  std::size_t Publish(const ProfileId& key) {
    return publisher_.Publish(key, MakeEvent<::rpc::NetworkChanged>(key.value()));
  }

 private:
  // `key` is one of `keys_`.
  void Ask(const ProfileId& key) {
    caller_.Call(
        key, request_,
        [this, &key](const ::rpc::CanAccessFile::Response& /*response*/) { Ask(key); },
        [](const absl::Status& /*status*/) {}, absl::InfiniteDuration());
  }

  const ::rpc::CanAccessFile::Request request_ = MakeRequest<::rpc::CanAccessFile::Request>();
  std::map<std::string, ProfileId> keys_;  // Of questions.
  EventPublisher<::rpc::NetworkChanged> publisher_;
  CallbackCaller<::rpc::CanAccessFile> caller_;
};

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_SCENARIO_HOST_H_
