#include "core/host/browser/target_poll.h"

#include <utility>

#include "core/host/browser/json_field.h"

namespace varnic::host {

using Json = nlohmann::json;

TargetPoll::TargetPoll(net::EventLoop& loop, DevToolsPipe& devtools,
                       std::function<bool()> is_wanted, std::function<void(const Json&)> on_info)
    : devtools_(devtools),
      is_wanted_(std::move(is_wanted)),
      on_info_(std::move(on_info)),
      timer_(loop) {
  Wait();
}

void TargetPoll::Wait() {
  timer_.Start(kPeriod, [this] { Ask(); });
}

void TargetPoll::Ask() {
  if (!is_wanted_()) return Wait();
  const Json pages = {{"filter", Json::array({{{"type", "page"}}})}};
  devtools_.Call({"Target.getTargets", pages},
                 lifetime_.Guard([this](const absl::StatusOr<Json>& answer) {
                   OnTargets(answer);
                   Wait();
                 }));
}

void TargetPoll::OnTargets(const absl::StatusOr<Json>& answer) {
  const Json* const targets = answer.ok() ? FieldAt(*answer, "targetInfos") : nullptr;
  if (targets == nullptr || !targets->is_array()) return;
  for (const Json& info : *targets) {
    if (info.is_object()) on_info_(info);
  }
}

}  // namespace varnic::host
