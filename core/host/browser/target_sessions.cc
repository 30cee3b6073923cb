#include "core/host/browser/target_sessions.h"

#include <utility>
#include <vector>

#include "base/logging.h"
#include "core/host/browser/json_field.h"
#include "core/host/browser/user_agent_override.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// Of what is the browser's own, nothing is shown. Workers that several pages can share come in the
// browser's session and in each page's; of two sessions, the later would undo the other's override.
Json Filter(bool is_root) {
  Json filter = Json::array();
  const auto leave_out = [&filter](const char* type) {
    filter.push_back({{"type", type}, {"exclude", true}});
  };
  for (const char* type : {"browser", "browser_ui", "tab"}) leave_out(type);
  if (!is_root) {
    for (const char* type : {"page", "service_worker", "shared_worker"}) leave_out(type);
  }
  filter.push_back(Json::object());
  return filter;
}

TargetSession SessionIn(const Json& params) {
  TargetSession session;
  session.session_id = TextAt(params, "sessionId");
  const Json* const info = FieldAt(params, "targetInfo");
  if (info == nullptr || !info->is_object()) return session;
  session.target_id = TextAt(*info, "targetId");
  session.type = TextAt(*info, "type");
  session.subtype = TextAt(*info, "subtype");
  session.opener_id = TextAt(*info, "openerId");
  session.browser_context = TextAt(*info, "browserContextId");
  session.url = TextAt(*info, "url");
  session.title = TextAt(*info, "title");
  return session;
}

void Ignore(const absl::StatusOr<Json>&) {}

}  // namespace

TargetSessions::TargetSessions(DevToolsPipe& devtools, const UserAgent& user_agent,
                               Visitor& visitor)
    : devtools_(devtools), user_agent_(UserAgentOverride(user_agent)), visitor_(visitor) {}

void TargetSessions::Start(std::function<void(absl::Status)> on_started) {
  ListenTo("");
  AutoAttach(
      "", lifetime_.Guard([on_started = std::move(on_started)](const absl::StatusOr<Json>& answer) {
        on_started(answer.status());
      }));
}

void TargetSessions::ListenTo(const std::string& session_id) {
  devtools_.Listen(
      session_id, "Target.attachedToTarget",
      lifetime_.Guard([this, session_id](const Json& params) { OnAttached(session_id, params); }));
  devtools_.Listen(
      session_id, "Target.detachedFromTarget",
      lifetime_.Guard([this](const Json& params) { OnDetached(TextAt(params, "sessionId")); }));
}

void TargetSessions::AutoAttach(const std::string& session_id, DevToolsPipe::Answer answer) {
  Json params = {{"autoAttach", true},
                 {"waitForDebuggerOnStart", true},
                 {"flatten", true},
                 {"filter", Filter(session_id.empty())}};
  devtools_.Call({"Target.setAutoAttach", std::move(params), session_id}, std::move(answer));
}

void TargetSessions::OnAttached(const std::string& parent, const Json& params) {
  TargetSession session = SessionIn(params);
  if (session.session_id.empty()) return;
  session.parent = parent;
  sessions_[session.session_id] = session;
  SetUp(session);
}

// Each command is sent without waiting for the one before, for a session's are done in their order.
void TargetSessions::SetUp(const TargetSession& session) {
  const std::string& id = session.session_id;
  ListenTo(id);
  devtools_.Call({"Emulation.setUserAgentOverride", user_agent_, id},
                 lifetime_.Guard([this, type = session.type](const absl::StatusOr<Json>& answer) {
                   OnOverridden(type, answer.status());
                 }));
  if (!online_) SendNetworkState(session);
  visitor_.OnAttached(session);
  AutoAttach(id, Ignore);
  devtools_.Call({"Runtime.runIfWaitingForDebugger", Json::object(), id}, Ignore);
}

void TargetSessions::OnOverridden(const std::string& type, const absl::Status& status) {
  // Worklets have no such thing, and a session may have ended meanwhile.
  if (!absl::IsInvalidArgument(status)) return;
  const std::optional<uint64_t> left_out = log_limiter_.Admit();
  if (!left_out || !logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "A browser refuses the user agent" << net::LogField("target", type)
      << net::LogField("reason", std::string(status.message())) << net::LogLimiter::More(*left_out);
}

void TargetSessions::SetNetworkState(bool online) {
  if (std::exchange(online_, online) == online) return;
  for (const auto& [id, session] : sessions_) SendNetworkState(session);
}

// A worker of one page alone shares the state of the page's process. Without limits of speed, what
// is sent for "online" ends the override.
void TargetSessions::SendNetworkState(const TargetSession& session) {
  if (session.type == "worker") return;
  Json params = {
      {"offline", !online_}, {"latency", 0}, {"downloadThroughput", -1}, {"uploadThroughput", -1}};
  devtools_.Call({"Network.overrideNetworkState", std::move(params), session.session_id}, Ignore);
}

// Of sessions inside one that ends, a browser does not always tell.
void TargetSessions::OnDetached(const std::string& session_id) {
  std::vector<std::string> inside;
  for (const auto& [id, session] : sessions_) {
    if (session.parent == session_id) inside.push_back(id);
  }
  for (const std::string& id : inside) OnDetached(id);
  const auto node = sessions_.extract(session_id);
  if (!node.empty()) visitor_.OnDetached(node.mapped());
}

}  // namespace varnic::host
