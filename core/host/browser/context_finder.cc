#include "core/host/browser/context_finder.h"

#include <algorithm>
#include <utility>

#include "core/host/browser/event_field.h"
#include "nlohmann/json.hpp"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// Which of the browser's contexts is meant, given those that are not the persistent profile's. That
// one has a name too, but is not in the list.
std::optional<std::string> ContextAmong(const Json& contexts, const std::string& name) {
  const auto ids = contexts.find("browserContextIds");
  if (ids == contexts.end() || !ids->is_array()) return std::nullopt;
  if (std::find(ids->begin(), ids->end(), Json(name)) != ids->end()) return name;
  if (name.empty() && !ids->empty()) return std::nullopt;
  return "";
}

}  // namespace

void ContextFinder::Find(const std::string& frame_id, const OnContext& on_context) {
  if (const std::optional<std::string> context = frames_.ContextOf(frame_id)) {
    return on_context(context);
  }
  devtools_.Call(
      {"Target.getTargetInfo", {{"targetId", frame_id}}},
      lifetime_.Guard([this, frame_id, on_context](const absl::StatusOr<Json>& answer) {
        const Json none;
        const Json& target = answer.ok() ? *answer : none;
        Resolve(frame_id, EventText(target, {"targetInfo", "browserContextId"}), on_context);
      }));
}

void ContextFinder::Resolve(const std::string& frame_id, const std::string& target_context,
                            OnContext on_context) {
  devtools_.Call(
      {"Target.getBrowserContexts"},
      lifetime_.Guard([this, frame_id, target_context,
                       on_context = std::move(on_context)](const absl::StatusOr<Json>& answer) {
        // Its page may have told of it in the meantime.
        const std::optional<std::string> known = frames_.ContextOf(frame_id);
        if (known) return on_context(known);
        on_context(answer.ok() ? ContextAmong(*answer, target_context) : std::nullopt);
      }));
}

}  // namespace varnic::host
