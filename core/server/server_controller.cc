#include "core/server/server_controller.h"

#include <utility>

#include "core/common/rpc/fatal.h"

namespace varnic {

ServerController::~ServerController() {
  if (on_cancel_ != nullptr) std::exchange(on_cancel_, nullptr)->Run();
}

void ServerController::Cancel() {
  canceled_ = true;
  if (on_cancel_ != nullptr) std::exchange(on_cancel_, nullptr)->Run();
}

void ServerController::NotifyOnCancel(google::protobuf::Closure* closure) {
  if (canceled_) {
    closure->Run();
    return;
  }
  VARNIC_CHECK(on_cancel_ == nullptr);
  on_cancel_ = closure;
}

}  // namespace varnic
