#include "core/host/browser/browser_windows.h"

#include <algorithm>
#include <utility>

#include "base/logging.h"
#include "core/host/browser/json_field.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

constexpr char kBlank[] = "about:blank";

void Ignore(const absl::StatusOr<Json>&) {}

// A page that is loaded ahead is none yet.
bool IsPage(const TargetSession& session) {
  return session.type == "page" && session.subtype.empty();
}

bool IsBlank(const std::string& url) {
  return url.empty() || url == kBlank;
}

std::string Shown(const std::string& url, const std::string& destination) {
  if (!IsBlank(url)) return url;
  return destination.empty() ? kBlank : destination;
}

void LogCrash(const BrowserWindow& window) {
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "A page has crashed" << net::LogField("url", window.url);
}

}  // namespace

BrowserWindows::BrowserWindows(DevToolsPipe& devtools, IncognitoContexts& contexts,
                               bool is_headless, WindowVisitor& visitor)
    : devtools_(devtools), contexts_(contexts), is_headless_(is_headless), visitor_(visitor) {
  Listen();
}

void BrowserWindows::Listen() {
  devtools_.Listen("", "Target.targetInfoChanged", lifetime_.Guard([this](const Json& params) {
    const Json* const info = FieldAt(params, "targetInfo");
    if (info != nullptr && info->is_object()) OnInfo(*info);
  }));
  devtools_.Listen("", "Target.targetCrashed",
                   lifetime_.Guard([this](const Json& params) { OnCrashed(params); }));
}

void BrowserWindows::OnCreated(const std::string& target_id) {
  --creating_;
  if (!target_id.empty()) {
    const auto it = pages_.find(target_id);
    if (it == pages_.end()) {
      claimed_early_.insert(target_id);
    } else {
      it->second.is_claimed = true;
    }
  }
  if (creating_ == 0) ShowUnclaimed();
}

void BrowserWindows::ShowUnclaimed() {
  std::vector<std::string> targets;
  for (const auto& [target_id, page] : pages_) {
    if (!page.is_claimed && !page.is_shown) targets.push_back(target_id);
  }
  for (const std::string& target_id : targets) Show(target_id, "");
}

void BrowserWindows::OnAttached(const TargetSession& session) {
  if (!IsPage(session)) return;
  Page page;
  page.session = session;
  page.window.target_id = session.target_id;
  page.window.context = contexts_.ContextOf(session.browser_context);
  page.window.url = Shown(session.url, "");
  page.window.title = session.title;
  page.window.headless = is_headless_;
  page.is_claimed = claimed_early_.erase(session.target_id) != 0;
  contexts_.Use(page.window.context);
  Page& kept = pages_[session.target_id] = std::move(page);
  const bool may_be_ours = creating_ > 0 && session.opener_id.empty();
  if (!kept.is_claimed && !may_be_ours) Show(kept);
}

const BrowserWindow* BrowserWindows::Show(const std::string& target_id, const std::string& url) {
  const auto it = pages_.find(target_id);
  if (it == pages_.end()) return nullptr;
  it->second.destination = url;
  it->second.window.url = Shown(it->second.window.url, url);
  Show(it->second);
  return Find(target_id);
}

void BrowserWindows::Show(Page& page) {
  if (std::exchange(page.is_shown, true)) return;
  const BrowserWindow window = page.window;
  visitor_.OnWindowOpened(window);
}

void BrowserWindows::OnInfo(const Json& info) {
  const auto it = pages_.find(TextAt(info, "targetId"));
  if (it == pages_.end()) return;
  Page& page = it->second;
  const std::string url = Shown(TextAt(info, "url"), page.destination);
  const std::string title = TextAt(info, "title");
  if (!IsBlank(TextAt(info, "url"))) page.destination.clear();
  if (url == page.window.url && title == page.window.title) return;
  page.window.url = url;
  page.window.title = title;
  if (!page.is_shown) return;
  const BrowserWindow window = page.window;
  visitor_.OnWindowChanged(window);
}

// A person who sees it can load it again. What nobody sees is closed, so that whoever opened it
// hears of it.
void BrowserWindows::OnCrashed(const Json& params) {
  const auto it = pages_.find(TextAt(params, "targetId"));
  if (it == pages_.end()) return;
  LogCrash(it->second.window);
  const bool is_seen = !is_headless_ && it->second.is_shown;
  if (!is_seen) devtools_.Call({"Target.closeTarget", {{"targetId", it->first}}}, Ignore);
}

void BrowserWindows::OnDetached(const TargetSession& session) {
  const auto it = pages_.find(session.target_id);
  if (it == pages_.end() || it->second.session.session_id != session.session_id) return;
  auto node = pages_.extract(it);
  End(node.mapped());
}

void BrowserWindows::End(const Page& page) {
  if (page.is_shown) visitor_.OnWindowClosed(page.window);
  contexts_.EndUse(page.window.context);
}

void BrowserWindows::CloseAll() {
  while (!pages_.empty()) {
    auto node = pages_.extract(pages_.begin());
    if (node.mapped().is_shown) visitor_.OnWindowClosed(node.mapped().window);
  }
}

std::string BrowserWindows::SessionOf(const std::string& target_id) const {
  const auto it = pages_.find(target_id);
  return it == pages_.end() ? std::string() : it->second.session.session_id;
}

const BrowserWindow* BrowserWindows::Find(const std::string& target_id) const {
  const auto it = pages_.find(target_id);
  return it == pages_.end() || !it->second.is_shown ? nullptr : &it->second.window;
}

size_t BrowserWindows::shown() const {
  return static_cast<size_t>(std::count_if(
      pages_.begin(), pages_.end(), [](const auto& entry) { return entry.second.is_shown; }));
}

std::vector<TargetSession> BrowserWindows::SessionsIn(const std::string& context) const {
  std::vector<TargetSession> sessions;
  for (const auto& [target_id, page] : pages_) {
    if (page.is_shown && page.window.context == context) sessions.push_back(page.session);
  }
  return sessions;
}

}  // namespace varnic::host
