#include "core/host/browser/request_gate.h"

#include <initializer_list>
#include <set>
#include <utility>

#include "core/host/browser/context_finder.h"
#include "core/host/browser/event_field.h"
#include "core/host/browser/file_gate.h"
#include "core/host/browser/file_url.h"
#include "core/host/browser/frame_table.h"
#include "core/host/browser/header_override.h"
#include "core/host/browser/held_requests.h"
#include "core/host/browser/login_gate.h"
#include "core/host/browser/request_replies.h"
#include "core/net/lifetime.h"
#include "nlohmann/json.hpp"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// Challenges come only for requests that match a pattern, so that those of the network are paused
// too.
Json Interception() {
  return {{"patterns", {{{"urlPattern", "file://*"}}, {{"urlPattern", "http*://*"}}}},
          {"handleAuthRequests", true}};
}

// A question runs out of time first, unless looking for the file or the profile takes long.
HeldRequestOptions HoldingOf(const QuestionOptions& questions) {
  HeldRequestOptions options;
  options.time = questions.time + absl::Seconds(10);
  options.max_requests = questions.open_questions;
  return options;
}

// What an origin is called that browsers do not tell: "://" is an error page's.
std::string OriginOf(const std::string& security_origin) {
  if (security_origin.empty() || security_origin == "://") return FrameTable::kOpaqueOrigin;
  return security_origin;
}

}  // namespace

class RequestGate::Impl {
 public:
  Impl(DevToolsPipe& devtools, TaskThread& files, QuestionAsker& asker,
       const QuestionKeys& question_keys)
      : devtools_(devtools),
        replies_(devtools, asker.scheduler()),
        held_(devtools, asker, HoldingOf(asker.options())),
        contexts_(devtools, frames_),
        files_(devtools, replies_, held_, contexts_, frames_, files, asker, question_keys),
        logins_(replies_, held_, contexts_, asker, question_keys) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() {
    Listen("", "Fetch.requestPaused", nullptr);
    Listen("", "Fetch.authRequired", nullptr);
    for (const std::string& session_id : sessions_) ForgetPage(session_id);
  }

  void Start(std::function<void(absl::Status)> on_started) {
    Listen("", "Fetch.requestPaused", [this](const Json& event) { OnRequest(event); });
    Listen("", "Fetch.authRequired", [this](const Json& event) { logins_.OnChallenge(event); });
    devtools_.Call(
        {"Fetch.enable", Interception()},
        lifetime_.Guard([on_started = std::move(on_started)](const absl::StatusOr<Json>& answer) {
          on_started(answer.status());
        }));
  }

  void OverrideHeaders(HeaderOverride headers) { headers_ = std::move(headers); }

  void OnPageAttached(const std::string& session_id, const std::string& target_id,
                      const std::string& context) {
    sessions_.insert(session_id);
    frames_.OnPageAttached(session_id, target_id, context);
    ListenToPage(session_id);
    devtools_.Call({"Page.enable", Json::object(), session_id}, [](const absl::StatusOr<Json>&) {});
  }

  void OnPageDetached(const std::string& session_id) {
    if (sessions_.erase(session_id) == 0) return;
    ForgetPage(session_id);
    held_.OnFramesGone(frames_.OnPageDetached(session_id));
  }

 private:
  void Listen(const std::string& session_id, const std::string& method,
              DevToolsPipe::Listener listener) {
    devtools_.Listen(session_id, method, std::move(listener));
  }

  void ListenToPage(const std::string& session_id) {
    Listen(session_id, "Page.frameAttached", [this, session_id](const Json& event) {
      frames_.OnFrameAttached(session_id, EventText(event, {"frameId"}),
                              EventText(event, {"parentFrameId"}));
    });
    Listen(session_id, "Page.frameDetached", [this](const Json& event) { OnFrameDetached(event); });
    Listen(session_id, "Page.frameNavigated",
           [this](const Json& event) { OnFrameNavigated(event); });
    Listen(session_id, "Page.frameRequestedNavigation", [this](const Json& event) {
      frames_.OnNavigationRequested(EventText(event, {"frameId"}));
    });
    Listen(session_id, "Page.frameStartedNavigating", [this](const Json& event) {
      frames_.OnNavigationStarted(EventText(event, {"frameId"}));
    });
    Listen(session_id, "Page.frameStoppedLoading",
           [this](const Json& event) { held_.Check(EventText(event, {"frameId"})); });
  }

  void ForgetPage(const std::string& session_id) {
    for (const char* event :
         {"frameAttached", "frameDetached", "frameNavigated", "frameRequestedNavigation",
          "frameStartedNavigating", "frameStoppedLoading"}) {
      Listen(session_id, std::string("Page.") + event, nullptr);
    }
  }

  // Most requests are of the network, and pass. Of what nobody knows what it is, none does.
  void OnRequest(const Json& event) {
    const std::string& url = EventText(event, {"request", "url"});
    if (url.empty()) return replies_.Refuse(EventText(event, {"requestId"}));
    if (IsFileUrl(url)) return files_.OnRequest(event);
    replies_.Continue(EventText(event, {"requestId"}), headers_.HeadersFor(event));
  }

  void OnFrameDetached(const Json& event) {
    // A frame that moves to another process is only swapped.
    if (EventText(event, {"reason"}) == "swap") return;
    held_.OnFramesGone(frames_.OnFrameRemoved(EventText(event, {"frameId"})));
  }

  void OnFrameNavigated(const Json& event) {
    const std::string& frame_id = EventText(event, {"frame", "id"});
    frames_.OnFrameNavigated(frame_id, OriginOf(EventText(event, {"frame", "securityOrigin"})));
    held_.Check(frame_id);
  }

  DevToolsPipe& devtools_;
  FrameTable frames_;
  HeaderOverride headers_;
  std::set<std::string> sessions_;
  RequestReplies replies_;
  HeldRequests held_;  // Gives its requests up with replies.
  ContextFinder contexts_;
  FileGate files_;
  LoginGate logins_;
  net::Lifetime lifetime_;
};

RequestGate::RequestGate(DevToolsPipe& devtools, TaskThread& files, QuestionAsker& asker,
                         const QuestionKeys& question_keys)
    : impl_(std::make_unique<Impl>(devtools, files, asker, question_keys)) {}

RequestGate::~RequestGate() = default;

void RequestGate::Start(std::function<void(absl::Status)> on_started) {
  impl_->Start(std::move(on_started));
}

void RequestGate::OverrideHeaders(std::map<std::string, std::string> headers) {
  impl_->OverrideHeaders(HeaderOverride(std::move(headers)));
}

void RequestGate::OnPageAttached(const std::string& session_id, const std::string& target_id,
                                 const std::string& context) {
  impl_->OnPageAttached(session_id, target_id, context);
}

void RequestGate::OnPageDetached(const std::string& session_id) {
  impl_->OnPageDetached(session_id);
}

}  // namespace varnic::host
