#include "core/host/browser/settings_page.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/host/browser/json_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// One try; the page may have been left while it ran, and then it may never end.
constexpr absl::Duration kTryTime = absl::Seconds(2);

void Ignore(const absl::StatusOr<Json>&) {}

std::string Literal(const std::string& text) {
  return Json(text).dump(-1, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace);
}

const Json* ValueIn(const Json& answer) {
  const Json* const result = FieldAt(answer, "result");
  return result != nullptr && result->is_object() ? FieldAt(*result, "value") : nullptr;
}

}  // namespace

SettingsPage::SettingsPage(net::EventLoop& loop, DevToolsPipe& devtools, BrowserWindows& windows,
                           bool is_headless)
    : loop_(loop),
      devtools_(devtools),
      windows_(windows),
      is_headless_(is_headless),
      retry_(loop) {}

void SettingsPage::Get(const std::string& name, Reply<std::string> reply) {
  std::string script = absl::StrCat("new Promise(done => chrome.settingsPrivate.getPref(",
                                    Literal(name), ", found => done(found.value)))");
  Add(std::move(script), Json::value_t::string,
      [reply = std::move(reply)](const absl::StatusOr<Json>& value) {
        if (!value.ok()) return reply(value.status());
        reply(value->get<std::string>());
      });
}

void SettingsPage::Set(const std::string& name, const std::string& value, Reply<Done> reply) {
  std::string script = absl::StrCat("new Promise(done => chrome.settingsPrivate.setPref(",
                                    Literal(name), ", ", Literal(value), ", '', done))");
  Add(std::move(script), Json::value_t::boolean,
      [reply = std::move(reply), name](const absl::StatusOr<Json>& is_set) {
        if (!is_set.ok()) return reply(is_set.status());
        if (is_set->get<bool>()) return reply(Done());
        reply(absl::FailedPreconditionError(
            absl::StrCat("the browser refuses to change its setting \"", name, "\"")));
      });
}

void SettingsPage::Add(std::string script, Json::value_t expected, OnValue on_value) {
  const int number = ++last_number_;
  auto deadline = std::make_unique<net::Timer>(loop_);
  deadline->Start(kTimeLimit, [this, number] {
    Finish(number,
           absl::DeadlineExceededError(absl::StrCat("the browser's settings do not answer within ",
                                                    absl::FormatDuration(kTimeLimit))));
  });
  jobs_.push_back({number, std::move(script), expected, std::move(on_value), std::move(deadline)});
  Go();
}

void SettingsPage::Go() {
  if (is_busy_ || jobs_.empty()) return;
  if (target_id_.empty()) {
    Open();
  } else if (!session_id_.empty()) {
    Ask();
  }
}

// In the background, it takes nobody's place before the screen.
void SettingsPage::Open() {
  is_busy_ = true;
  Json params = {{"url", "chrome://settings/languages"}, {"background", true}};
  if (!is_headless_) {
    params["newWindow"] = true;
    params["windowState"] = "minimized";
  }
  windows_.OnCreating();
  devtools_.Call(
      {"Target.createTarget", std::move(params)},
      lifetime_.Guard([this](const absl::StatusOr<Json>& answer) { OnCreated(answer); }));
}

void SettingsPage::OnCreated(const absl::StatusOr<Json>& answer) {
  is_busy_ = false;
  target_id_ = answer.ok() ? TextAt(*answer, "targetId") : "";
  session_id_ = windows_.SessionOf(target_id_);
  windows_.OnCreated(target_id_);
  CloseIfIdle();
  if (answer.ok() || jobs_.empty()) return Go();
  Finish(jobs_.front().number, answer.status());
}

void SettingsPage::OnAttached(const TargetSession& session) {
  if (session.target_id != target_id_) return;
  session_id_ = session.session_id;
  Go();
}

void SettingsPage::OnDetached(const TargetSession& session) {
  if (session.session_id != session_id_) return;
  target_id_.clear();
  session_id_.clear();
  Go();
}

void SettingsPage::Ask() {
  is_busy_ = true;
  Json params = {
      {"expression", jobs_.front().script}, {"awaitPromise", true}, {"returnByValue", true}};
  devtools_.Call(
      {"Runtime.evaluate", std::move(params), session_id_, kTryTime},
      lifetime_.Guard([this, number = jobs_.front().number](const absl::StatusOr<Json>& answer) {
        OnAnswer(number, answer);
      }));
}

// Until the page is there, there is no chrome.settingsPrivate, and what has begun may be lost.
void SettingsPage::OnAnswer(int number, const absl::StatusOr<Json>& answer) {
  is_busy_ = false;
  if (jobs_.empty()) return;
  const Json* const value = answer.ok() ? ValueIn(*answer) : nullptr;
  if (jobs_.front().number != number) return Go();
  if (value == nullptr || value->type() != jobs_.front().expected) return RetryLater();
  Finish(number, *value);
}

void SettingsPage::RetryLater() {
  is_busy_ = true;
  retry_.Start(kRetryDelay, [this] {
    is_busy_ = false;
    Go();
  });
}

void SettingsPage::Finish(int number, absl::StatusOr<Json> value) {
  const auto it = std::find_if(jobs_.begin(), jobs_.end(),
                               [number](const Job& job) { return job.number == number; });
  if (it == jobs_.end()) return;
  const OnValue on_value = std::move(it->on_value);
  jobs_.erase(it);
  CloseIfIdle();
  Go();
  on_value(std::move(value));
}

void SettingsPage::CloseIfIdle() {
  if (!jobs_.empty() || target_id_.empty()) return;
  devtools_.Call({"Target.closeTarget", {{"targetId", target_id_}}}, Ignore);
  target_id_.clear();
  session_id_.clear();
}

void SettingsPage::FailAll(const absl::Status& why) {
  const std::deque<Job> jobs = std::exchange(jobs_, {});
  for (const Job& job : jobs) job.on_value(why);
}

}  // namespace varnic::host
