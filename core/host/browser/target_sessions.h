#ifndef CORE_HOST_BROWSER_TARGET_SESSIONS_H_
#define CORE_HOST_BROWSER_TARGET_SESSIONS_H_

#include <functional>
#include <map>
#include <string>

#include "absl/status/status.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/user_agent.h"
#include "core/net/lifetime.h"
#include "core/net/log_limiter.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

// The session of one target, and what the target was when it came.
struct TargetSession {
  std::string session_id;
  std::string parent;  // The session in which it came; empty: the browser's own.
  std::string target_id;
  std::string type;  // "page", "iframe", "worker", "service_worker", "shared_worker", …
  std::string subtype;
  std::string opener_id;
  std::string browser_context;
  std::string url;
  std::string title;
};

// Attaches one session to every target of a browser before it runs: pages and popups, frames with
// a process of their own, workers and service workers. Each starts with the user agent and the
// network state that it should see.
//
// Lives on the loop's thread; the pipe and the visitor outlive it.
class TargetSessions {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // The target is held back until this returns.
    virtual void OnAttached(const TargetSession& session) = 0;
    // Once for each OnAttached(); first of the sessions that came in this one.
    virtual void OnDetached(const TargetSession& session) = 0;
  };

  TargetSessions(DevToolsPipe& devtools, const UserAgent& user_agent, Visitor& visitor);
  TargetSessions(const TargetSessions&) = delete;
  TargetSessions& operator=(const TargetSessions&) = delete;

  // Once, before any target is made. `on_started` runs once, unless this is destroyed before.
  void Start(std::function<void(absl::Status)> on_started);

  // What navigator.onLine says, now and in targets to come; true to begin with. Requests are not
  // kept back: the network does that.
  void SetNetworkState(bool online);

 private:
  void ListenTo(const std::string& session_id);
  void AutoAttach(const std::string& session_id, DevToolsPipe::Answer answer);
  void OnAttached(const std::string& parent, const nlohmann::json& params);
  void OnDetached(const std::string& session_id);
  void SetUp(const TargetSession& session);
  void SendNetworkState(const TargetSession& session);
  void OnOverridden(const std::string& type, const absl::Status& status);

  DevToolsPipe& devtools_;
  const nlohmann::json user_agent_;
  Visitor& visitor_;
  bool online_ = true;
  std::map<std::string, TargetSession> sessions_;  // By session id.
  net::LogLimiter log_limiter_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_TARGET_SESSIONS_H_
