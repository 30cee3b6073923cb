#ifndef CORE_HOST_CALL_REPLY_H_
#define CORE_HOST_CALL_REPLY_H_

#include <google/protobuf/service.h>
#include <google/protobuf/stubs/callback.h>

#include <utility>

#include "absl/status/statusor.h"
#include "core/host/profiles.h"
#include "core/server/server_controller.h"

namespace varnic::host {

// How an override answers its call: with `fill(value)`, or with the status that there is instead.
// `controller` comes from an RpcServer. It touches nothing but the call, so it may run when the
// service is gone.
template <class T, class Fill>
Reply<T> CallReply(google::protobuf::RpcController* controller, google::protobuf::Closure* done,
                   Fill fill) {
  return [controller, done, fill = std::move(fill)](absl::StatusOr<T> value) {
    if (value.ok()) {
      fill(*std::move(value));
    } else {
      ServerController::From(controller).SetStatus(value.status());
    }
    done->Run();
  };
}

}  // namespace varnic::host

#endif  // CORE_HOST_CALL_REPLY_H_
