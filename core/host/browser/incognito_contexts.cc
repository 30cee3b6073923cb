#include "core/host/browser/incognito_contexts.h"

#include <utility>

#include "absl/status/status.h"
#include "core/host/browser/json_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// Longer than anybody waits: what is made late has to be heard of, to be given up.
constexpr absl::Duration kLateTime = absl::Minutes(2);

void Ignore(const absl::StatusOr<Json>&) {}

}  // namespace

IncognitoContexts::IncognitoContexts(DevToolsPipe& devtools, bool deny_downloads,
                                     std::function<void(const std::string&)> on_closed)
    : devtools_(devtools), deny_downloads_(deny_downloads), on_closed_(std::move(on_closed)) {}

void IncognitoContexts::Make(std::function<void(absl::StatusOr<std::string>)> on_made) {
  auto on_answer = [this, on_made = std::move(on_made)](const absl::StatusOr<Json>& answer) {
    if (!answer.ok()) return on_made(answer.status());
    const std::string context = TextAt(*answer, "browserContextId");
    if (context.empty()) return on_made(absl::InternalError("the browser names no context"));
    uses_[context] = 1;
    if (deny_downloads_) DenyDownloads(context);
    on_made(context);
  };
  devtools_.Call({"Target.createBrowserContext", {{"disposeOnDetach", true}}, "", kLateTime},
                 lifetime_.Guard(std::move(on_answer)));
}

void IncognitoContexts::DenyDownloads(const std::string& context) {
  devtools_.Call(
      {"Browser.setDownloadBehavior", {{"behavior", "deny"}, {"browserContextId", context}}},
      Ignore);
}

std::string IncognitoContexts::ContextOf(const std::string& browser_context) const {
  return Has(browser_context) ? browser_context : std::string();
}

void IncognitoContexts::Use(const std::string& context) {
  const auto it = uses_.find(context);
  if (it != uses_.end()) ++it->second;
}

void IncognitoContexts::EndUse(const std::string& context) {
  const auto it = uses_.find(context);
  if (it == uses_.end() || --it->second > 0) return;
  const std::string closed = it->first;
  Drop(closed);
  on_closed_(closed);
}

void IncognitoContexts::Drop(const std::string& context) {
  uses_.erase(context);
  devtools_.Call({"Target.disposeBrowserContext", {{"browserContextId", context}}}, Ignore);
}

void IncognitoContexts::CloseAll() {
  const std::map<std::string, int> closed = std::exchange(uses_, {});
  for (const auto& [context, uses] : closed) on_closed_(context);
}

}  // namespace varnic::host
