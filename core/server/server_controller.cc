#include "core/server/server_controller.h"

#include <utility>

#include "core/common/rpc/fatal.h"

namespace varnic {
namespace {

template <class T>
std::shared_ptr<const T> OrEmpty(std::shared_ptr<const T> given) {
  return given != nullptr ? std::move(given) : std::make_shared<const T>();
}

}  // namespace

ServerController::ServerController(absl::Time deadline, std::shared_ptr<const net::Peer> peer,
                                   std::string role, std::shared_ptr<const net::Metadata> metadata)
    : deadline_(deadline),
      peer_(OrEmpty(std::move(peer))),
      role_(std::move(role)),
      metadata_(OrEmpty(std::move(metadata))) {}

ServerController::~ServerController() {
  Complete();
}

void ServerController::Cancel() {
  canceled_ = true;
  Complete();
}

void ServerController::Complete() {
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
