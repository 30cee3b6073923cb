#include "core/host/browser/testing/fake_targets.h"

#include <utility>
#include <vector>

namespace varnic::host::testing {
namespace {

using Json = nlohmann::json;

Json Result(Json result) {
  return {{"result", std::move(result)}};
}

Json Error(int code, const char* text) {
  return {{"error", {{"code", code}, {"message", text}}}};
}

}  // namespace

Json FakeTargets::Answer(const std::string& method, const Json& params,
                         const std::string& session) {
  if (method == "Target.createBrowserContext") {
    return Result({{"browserContextId", "C" + std::to_string(++contexts_made_)}});
  }
  if (method == "Target.disposeBrowserContext") {
    DisposeContext(params.value("browserContextId", ""));
    return Result(Json::object());
  }
  if (method == "Target.createTarget") return Result({{"targetId", Add(params, "")}});
  if (method == "Target.closeTarget") return Close(params.value("targetId", ""));
  if (method == "Page.navigate") return Navigate(params.value("url", ""), session);
  if (method == "Page.createIsolatedWorld") return Result({{"executionContextId", 7}});
  if (method == "Runtime.evaluate") return Evaluate(params.value("expression", ""));
  return Json();
}

void FakeTargets::AfterAnswer() {
  if (!late_.empty()) Attach(std::exchange(late_, {}), "");
}

std::string FakeTargets::Add(const Json& params, const std::string& opener) {
  const std::string number = std::to_string(++targets_made_);
  std::string id = "T" + number;
  targets_[id] = {"S" + number, params.value("browserContextId", "C0"), params.value("url", "")};
  if (attaches_late_ && opener.empty()) {
    late_ = id;
  } else {
    Attach(id, opener);
  }
  return id;
}

Json FakeTargets::InfoOf(const std::string& id) const {
  const Target& target = targets_.at(id);
  return {{"targetId", id},
          {"type", "page"},
          {"title", ""},
          {"url", target.url},
          {"browserContextId", target.context}};
}

void FakeTargets::Attach(const std::string& id, const std::string& opener) {
  Json info = InfoOf(id);
  if (!opener.empty()) info["openerId"] = opener;
  send_({{"method", "Target.attachedToTarget"},
         {"params", {{"sessionId", targets_[id].session}, {"targetInfo", std::move(info)}}}});
}

Json FakeTargets::Close(const std::string& id) {
  const auto node = targets_.extract(id);
  if (node.empty()) return Error(-32602, "No target with given id found");
  send_({{"method", "Target.detachedFromTarget"},
         {"params", {{"sessionId", node.mapped().session}, {"targetId", id}}}});
  return Result({{"success", true}});
}

void FakeTargets::DisposeContext(const std::string& context) {
  std::vector<std::string> ids;
  for (const auto& [id, target] : targets_) {
    if (target.context == context) ids.push_back(id);
  }
  for (const std::string& id : ids) Close(id);
}

Json FakeTargets::Navigate(const std::string& url, const std::string& session) {
  if (url == "no-address:") return Error(-32000, "Cannot navigate to invalid URL");
  const std::string id = "T" + session.substr(1);
  if (targets_.count(id) == 0) return Error(-32001, "Session with given id not found.");
  targets_[id].url = url;
  send_({{"method", "Target.targetInfoChanged"}, {"params", {{"targetInfo", InfoOf(id)}}}});
  if (url == "popup:") Add({{"browserContextId", targets_[id].context}}, id);
  if (url == "crash-page:") {
    send_({{"method", "Target.targetCrashed"}, {"params", {{"targetId", id}}}});
  }
  return Result({{"frameId", id}});
}

Json FakeTargets::Evaluate(const std::string& script) {
  if (script.find("navigator.languages") != std::string::npos) {
    return Result({{"result", {{"value", "en-GB,en"}}}});
  }
  // What a page answers that is still being loaded.
  if (settings_failures_-- > 0) return Result({{"result", {{"value", Json::object()}}}});
  const size_t set = script.find("setPref(");
  if (set == std::string::npos) return Result({{"result", {{"value", languages_}}}});
  const size_t start = script.find(", \"", set) + 3;
  languages_ = script.substr(start, script.find('"', start) - start);
  return Result({{"result", {{"value", true}}}});
}

}  // namespace varnic::host::testing
