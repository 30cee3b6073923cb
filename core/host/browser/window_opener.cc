#include "core/host/browser/window_opener.h"

#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/browser/json_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

constexpr char kBlank[] = "about:blank";

// What is made after its deadline has to be heard of, to be closed.
constexpr absl::Duration kLateTime = absl::Minutes(2);

void Ignore(const absl::StatusOr<Json>&) {}

Json CreateParams(const std::string& context, const WindowOptions& options) {
  Json params = {{"url", kBlank}, {"newWindow", true}};
  if (!context.empty()) params["browserContextId"] = context;
  if (options.position) {
    params["left"] = options.position->x;
    params["top"] = options.position->y;
  }
  if (options.size) {
    params["width"] = options.size->width;
    params["height"] = options.size->height;
  }
  return params;
}

absl::Status NoSuchWindow(const std::string& target_id) {
  return absl::NotFoundError(absl::StrCat("there is no window \"", target_id, "\""));
}

}  // namespace

WindowOpener::WindowOpener(net::EventLoop& loop, DevToolsPipe& devtools, BrowserWindows& windows,
                           IncognitoContexts& contexts)
    : loop_(loop), devtools_(devtools), windows_(windows), contexts_(contexts) {}

int WindowOpener::Add(const WindowOptions& options, Reply<BrowserWindow> reply) {
  const int number = ++last_number_;
  Opening& opening = openings_[number];
  opening.options = options;
  opening.reply = std::move(reply);
  opening.deadline = Deadline([this, number](const absl::Status& late) { Fail(number, late); });
  return number;
}

std::unique_ptr<net::Timer> WindowOpener::Deadline(
    std::function<void(const absl::Status&)> on_late) {
  auto timer = std::make_unique<net::Timer>(loop_);
  timer->Start(kTimeLimit, [on_late = std::move(on_late)] {
    on_late(absl::DeadlineExceededError(
        absl::StrCat("the browser did not do it within ", absl::FormatDuration(kTimeLimit))));
  });
  return timer;
}

void WindowOpener::Open(const std::string& context, const WindowOptions& options,
                        Reply<BrowserWindow> reply) {
  if (!context.empty() && !contexts_.Has(context)) {
    return reply(absl::NotFoundError("the incognito profile has been closed"));
  }
  const int number = Add(options, std::move(reply));
  openings_[number].context = context;
  contexts_.Use(context);
  Create(number);
}

void WindowOpener::OpenIncognito(const WindowOptions& options, OnContext on_context,
                                 Reply<BrowserWindow> reply) {
  const int number = Add(options, std::move(reply));
  contexts_.Make(lifetime_.Guard([this, number, on_context = std::move(on_context)](
                                     const absl::StatusOr<std::string>& context) {
    OnContextMade(number, on_context, context);
  }));
}

void WindowOpener::OnContextMade(int number, const OnContext& on_context,
                                 const absl::StatusOr<std::string>& context) {
  const auto it = openings_.find(number);
  if (it == openings_.end()) {
    if (context.ok()) contexts_.Drop(*context);
    return;
  }
  if (!context.ok()) return Fail(number, context.status());
  it->second.context = *context;
  if (on_context != nullptr) on_context(*context);
  Create(number);
}

void WindowOpener::Create(int number) {
  const auto it = openings_.find(number);
  if (it == openings_.end()) return;
  windows_.OnCreating();
  devtools_.Call(
      {"Target.createTarget", CreateParams(it->second.context, it->second.options), "", kLateTime},
      lifetime_.Guard([this, number](const absl::StatusOr<Json>& a) { OnCreated(number, a); }));
}

void WindowOpener::OnCreated(int number, const absl::StatusOr<Json>& answer) {
  const std::string target_id = answer.ok() ? TextAt(*answer, "targetId") : "";
  windows_.OnCreated(target_id);
  const auto it = openings_.find(number);
  if (it == openings_.end()) return CloseTarget(target_id);
  if (!answer.ok()) return Fail(number, answer.status());
  if (target_id.empty()) return Fail(number, absl::InternalError("the browser names no window"));
  it->second.target_id = target_id;
  MaybeSend(number);
}

void WindowOpener::OnAttached(const TargetSession& session) {
  for (const auto& [number, opening] : openings_) {
    if (opening.target_id == session.target_id) return MaybeSend(number);
  }
}

void WindowOpener::MaybeSend(int number) {
  Opening& opening = openings_[number];
  const std::string session = windows_.SessionOf(opening.target_id);
  if (session.empty() || std::exchange(opening.is_sent, true)) return;
  // Answered behind the overrides: a page that is sent away before the browser has heard that they
  // are in force begins without them.
  devtools_.Call({"Runtime.evaluate", {{"expression", "0"}}, session},
                 lifetime_.Guard([this, number, session](const absl::StatusOr<Json>&) {
                   Send(number, session);
                 }));
}

// An address that the browser cannot read is refused at once, before the command behind it is
// done; any other one is answered when the server has.
void WindowOpener::Send(int number, const std::string& session) {
  const auto it = openings_.find(number);
  if (it == openings_.end()) return;
  const Opening& opening = it->second;
  if (!opening.options.url.empty() && opening.options.url != kBlank) {
    devtools_.Call({"Page.navigate", {{"url", opening.options.url}}, session},
                   lifetime_.Guard([this, number](const absl::StatusOr<Json>& answer) {
                     const auto open = openings_.find(number);
                     if (open != openings_.end()) open->second.refusal = answer.status();
                   }));
  }
  devtools_.Call({"Target.getTargetInfo", {{"targetId", opening.target_id}}},
                 lifetime_.Guard([this, number](const absl::StatusOr<Json>& answer) {
                   OnSent(number, answer.status());
                 }));
}

void WindowOpener::OnSent(int number, const absl::Status& status) {
  const auto it = openings_.find(number);
  if (it == openings_.end()) return;
  if (!status.ok()) return Fail(number, status);
  const absl::Status refusal = it->second.refusal;
  if (refusal.ok() || absl::IsUnavailable(refusal)) return Succeed(number);
  Fail(number, absl::InvalidArgumentError(absl::StrCat("the browser cannot open \"",
                                                       it->second.options.url.substr(0, 200),
                                                       "\": ", refusal.message())));
}

void WindowOpener::Succeed(int number) {
  auto node = openings_.extract(number);
  const Opening& opening = node.mapped();
  const BrowserWindow* const shown = windows_.Show(opening.target_id, opening.options.url);
  absl::StatusOr<BrowserWindow> result = absl::UnavailableError("the window has been closed");
  if (shown != nullptr) result = *shown;
  contexts_.EndUse(opening.context);
  opening.reply(std::move(result));
}

void WindowOpener::Fail(int number, const absl::Status& why) {
  auto node = openings_.extract(number);
  if (node.empty()) return;
  const Opening& opening = node.mapped();
  CloseTarget(opening.target_id);
  contexts_.EndUse(opening.context);
  opening.reply(why);
}

void WindowOpener::CloseTarget(const std::string& target_id) {
  if (target_id.empty()) return;
  devtools_.Call({"Target.closeTarget", {{"targetId", target_id}}}, Ignore);
}

void WindowOpener::Close(const std::string& target_id, Reply<Done> reply) {
  if (windows_.Find(target_id) == nullptr) return reply(NoSuchWindow(target_id));
  // It goes at once, and what is asked now may not be failed any more.
  if (!devtools_.is_open()) return reply(absl::UnavailableError("the browser has ended"));
  const int number = ++last_number_;
  auto deadline = Deadline([this, number](const absl::Status& s) { FinishClosing(number, s); });
  closings_[number] = {target_id, std::move(reply), std::move(deadline)};
  devtools_.Call({"Target.closeTarget", {{"targetId", target_id}}},
                 lifetime_.Guard([this, number](const absl::StatusOr<Json>& answer) {
                   if (!answer.ok()) OnNotClosed(number, answer.status());
                 }));
}

void WindowOpener::OnNotClosed(int number, const absl::Status& why) {
  const auto it = closings_.find(number);
  if (it == closings_.end()) return;
  const bool is_gone = absl::IsInvalidArgument(why);
  FinishClosing(number, is_gone ? NoSuchWindow(it->second.target_id) : why);
}

void WindowOpener::FinishClosing(int number, const absl::StatusOr<Done>& result) {
  const auto node = closings_.extract(number);
  if (!node.empty()) node.mapped().reply(result);
}

void WindowOpener::OnDetached(const TargetSession& session) {
  std::vector<int> opened;
  for (const auto& [number, opening] : openings_) {
    if (opening.target_id == session.target_id) opened.push_back(number);
  }
  std::vector<int> closed;
  for (const auto& [number, closing] : closings_) {
    if (closing.target_id == session.target_id) closed.push_back(number);
  }
  for (const int number : opened) {
    Fail(number, absl::UnavailableError("the window has been closed"));
  }
  for (const int number : closed) FinishClosing(number, Done());
}

void WindowOpener::FailAll(const absl::Status& why) {
  const std::map<int, Opening> openings = std::exchange(openings_, {});
  const std::map<int, Closing> closings = std::exchange(closings_, {});
  for (const auto& [number, opening] : openings) opening.reply(why);
  for (const auto& [number, closing] : closings) closing.reply(why);
}

}  // namespace varnic::host
