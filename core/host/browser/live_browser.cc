#include "core/host/browser/live_browser.h"

#include <utility>

#include "core/host/browser/page_dialogs.h"
#include "core/host/browser/user_agent_override.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// The first is what somebody has chosen, the second what the browser has made of it.
constexpr char kSelectedLanguages[] = "intl.selected_languages";
constexpr char kAcceptLanguages[] = "intl.accept_languages";

bool HasFrames(const TargetSession& session) {
  return session.type == "page" || session.type == "iframe";
}

}  // namespace

LiveBrowser::LiveBrowser(net::EventLoop& loop, TaskThread& files, DevToolsPipe& devtools,
                         const UserAgent& user_agent, bool is_headless, QuestionAsker& asker,
                         const RequestGate::QuestionKeys& question_keys, WindowVisitor& visitor)
    : devtools_(devtools),
      is_headless_(is_headless),
      gate_(std::make_unique<RequestGate>(devtools, files, asker, question_keys)),
      contexts_(devtools, is_headless,
                [&visitor](const std::string& context) { visitor.OnContextClosed(context); }),
      windows_(devtools, contexts_, is_headless, visitor),
      settings_(loop, devtools, windows_, is_headless),
      page_languages_(devtools),
      opener_(loop, devtools, windows_, contexts_),
      sessions_(devtools, user_agent, *this),
      poll_(
          loop, devtools, [this] { return windows_.shown() > 0; },
          [this](const Json& info) { windows_.OnInfo(info); }) {
  gate_->OverrideHeaders(ClientHintHeaders(user_agent));
}

void LiveBrowser::Start(std::function<void(absl::Status)> on_started) {
  on_started_ = std::move(on_started);
  gate_->Start(lifetime_.Guard([this](const absl::Status& status) {
    if (!status.ok()) return FinishStart(status);
    Discover();
  }));
}

void LiveBrowser::Step(DevToolsCommand command, void (LiveBrowser::*next)()) {
  devtools_.Call(std::move(command),
                 lifetime_.Guard([this, next](const absl::StatusOr<Json>& answer) {
                   if (!answer.ok()) return FinishStart(answer.status());
                   (this->*next)();
                 }));
}

void LiveBrowser::Discover() {
  Step({"Target.setDiscoverTargets", {{"discover", true}}},
       is_headless_ ? &LiveBrowser::DenyDownloads : &LiveBrowser::AttachToTargets);
}

// Nobody asked for the files, nobody sees them, and a page could fill the disk.
void LiveBrowser::DenyDownloads() {
  Step({"Browser.setDownloadBehavior", {{"behavior", "deny"}}}, &LiveBrowser::AttachToTargets);
}

void LiveBrowser::AttachToTargets() {
  sessions_.Start(lifetime_.Guard([this](const absl::Status& status) { FinishStart(status); }));
}

void LiveBrowser::FinishStart(const absl::Status& status) {
  const auto on_started = std::exchange(on_started_, nullptr);
  if (on_started != nullptr) on_started(status);
}

void LiveBrowser::OnAttached(const TargetSession& session) {
  if (HasFrames(session) && gate_ != nullptr) {
    gate_->OnPageAttached(session.session_id, session.target_id,
                          contexts_.ContextOf(session.browser_context));
  }
  if (is_headless_ && session.type == "page") AnswerPageDialogs(devtools_, session.session_id);
  windows_.OnAttached(session);
  settings_.OnAttached(session);
  opener_.OnAttached(session);
}

void LiveBrowser::OnDetached(const TargetSession& session) {
  if (HasFrames(session) && gate_ != nullptr) gate_->OnPageDetached(session.session_id);
  windows_.OnDetached(session);
  settings_.OnDetached(session);
  opener_.OnDetached(session);
}

void LiveBrowser::SetAcceptLanguage(const std::string& list, Reply<Done> reply) {
  settings_.Set(kSelectedLanguages, list, std::move(reply));
}

void LiveBrowser::GetAcceptLanguage(const std::string& context, Reply<std::string> reply) {
  if (context.empty()) {
    auto on_selected = [this, reply = std::move(reply)](const absl::StatusOr<std::string>& list) {
      if (!list.ok() || !list->empty()) return reply(list);
      settings_.Get(kAcceptLanguages, reply);
    };
    return settings_.Get(kSelectedLanguages, std::move(on_selected));
  }
  if (!contexts_.Has(context)) {
    return reply(absl::NotFoundError("the incognito profile has been closed"));
  }
  page_languages_.Ask(windows_.SessionsIn(context), std::move(reply));
}

void LiveBrowser::FailAll(const absl::Status& why) {
  gate_ = nullptr;
  settings_.FailAll(why);
  page_languages_.FailAll(why);
  opener_.FailAll(why);
}

void LiveBrowser::CloseAll() {
  windows_.CloseAll();
  contexts_.CloseAll();
}

}  // namespace varnic::host
