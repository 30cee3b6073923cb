#include "core/server/server_controller.h"

#include <utility>

#include "core/common/rpc/fatal.h"

namespace varnic {

ServerController::ServerController(absl::Time deadline, std::shared_ptr<const net::Peer> peer,
                                   std::string role, net::Metadata metadata)
    : deadline_(deadline),
      peer_(peer != nullptr ? std::move(peer) : std::make_shared<const net::Peer>()),
      role_(std::move(role)),
      metadata_(std::move(metadata)) {}

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
