#ifndef CORE_HOST_BROWSER_LIVE_BROWSER_H_
#define CORE_HOST_BROWSER_LIVE_BROWSER_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "core/host/browser/browser_windows.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/incognito_contexts.h"
#include "core/host/browser/page_languages.h"
#include "core/host/browser/request_gate.h"
#include "core/host/browser/settings_page.h"
#include "core/host/browser/target_poll.h"
#include "core/host/browser/target_sessions.h"
#include "core/host/browser/window_opener.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "core/host/user_agent.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"

namespace varnic::host {

// One run of a profile's browser, from its being up to its end: puts the parts together, and hands
// each target to those that it concerns.
//
// Lives on the loop's thread; all that it is given outlives it. The visitor and replies may call
// into it, but not destroy it.
class LiveBrowser : private TargetSessions::Visitor {
 public:
  LiveBrowser(net::EventLoop& loop, TaskThread& files, DevToolsPipe& devtools,
              const UserAgent& user_agent, bool is_headless, QuestionAsker& asker,
              const RequestGate::QuestionKeys& question_keys, WindowVisitor& visitor);
  LiveBrowser(const LiveBrowser&) = delete;
  LiveBrowser& operator=(const LiveBrowser&) = delete;

  // Prepares the browser for its first window. `on_started` runs once, unless this is destroyed
  // before; nothing may be opened until then.
  void Start(std::function<void(absl::Status)> on_started);

  WindowOpener& opener() { return opener_; }
  size_t windows() const { return windows_.shown(); }
  void SetNetworkState(bool online) { sessions_.SetNetworkState(online); }
  // See ProfileBrowser.
  void SetAcceptLanguage(const std::string& list, Reply<Done> reply);
  void GetAcceptLanguage(const std::string& context, Reply<std::string> reply);

  // Withdraws the questions of its pages, and fails every open reply.
  void FailAll(const absl::Status& why);
  // The browser is gone: so are its windows and contexts.
  void CloseAll();

 private:
  // TargetSessions::Visitor:
  void OnAttached(const TargetSession& session) override;
  void OnDetached(const TargetSession& session) override;

  // The steps of Start(): each leads to the next, or to the end.
  void Discover();
  void DenyDownloads();
  void AttachToTargets();
  void Step(DevToolsCommand command, void (LiveBrowser::*next)());
  void FinishStart(const absl::Status& status);

  DevToolsPipe& devtools_;
  const bool is_headless_;
  std::function<void(absl::Status)> on_started_;
  std::unique_ptr<RequestGate> gate_;  // Null once all has failed.
  IncognitoContexts contexts_;
  BrowserWindows windows_;
  SettingsPage settings_;
  PageLanguages page_languages_;
  WindowOpener opener_;
  TargetSessions sessions_;
  TargetPoll poll_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_LIVE_BROWSER_H_
