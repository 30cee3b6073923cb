#ifndef CORE_HOST_BROWSER_BROWSER_WINDOWS_H_
#define CORE_HOST_BROWSER_BROWSER_WINDOWS_H_

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "core/host/browser/browser_window.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/incognito_contexts.h"
#include "core/host/browser/target_sessions.h"

namespace varnic::host {

// The pages of one browser, and which of them are windows that others know of: those that the host
// has opened, once they are shown, and those that pages or persons open, at once. Pages that serve
// the browser itself are never shown.
//
// Lives on the loop's thread; the pipe, the contexts and the visitor outlive it.
class BrowserWindows {
 public:
  BrowserWindows(DevToolsPipe& devtools, IncognitoContexts& contexts, bool is_headless,
                 WindowVisitor& visitor);
  BrowserWindows(const BrowserWindows&) = delete;
  BrowserWindows& operator=(const BrowserWindows&) = delete;

  // Around each Target.createTarget of the host, whose page may come before the answer: a page that
  // comes meanwhile may be the one. `target_id` is the one that was made, or empty; it is not shown
  // unless Show() is called.
  void OnCreating() { ++creating_; }
  void OnCreated(const std::string& target_id);

  // A page's session; others are left out.
  void OnAttached(const TargetSession& session);
  void OnDetached(const TargetSession& session);

  // What the browser says that a target is now ("targetInfo").
  void OnInfo(const nlohmann::json& info);

  // Shows a page as a window, on its way to `url`. Null if there is no such page.
  const BrowserWindow* Show(const std::string& target_id, const std::string& url);
  // Every page's session: empty if there is no such page, or it has no session yet.
  std::string SessionOf(const std::string& target_id) const;
  // A window that is shown, or null.
  const BrowserWindow* Find(const std::string& target_id) const;
  // The pages of a context that are shown.
  std::vector<TargetSession> SessionsIn(const std::string& context) const;
  size_t shown() const;

  // The browser is gone.
  void CloseAll();

 private:
  struct Page {
    TargetSession session;
    BrowserWindow window;
    std::string destination;  // Until it is somewhere.
    bool is_claimed = false;  // By an OnCreated().
    bool is_shown = false;
  };

  void Listen();
  void OnCrashed(const nlohmann::json& params);
  void Show(Page& page);
  void ShowUnclaimed();
  void End(const Page& page);

  DevToolsPipe& devtools_;
  IncognitoContexts& contexts_;
  const bool is_headless_;
  WindowVisitor& visitor_;
  int creating_ = 0;
  std::set<std::string> claimed_early_;  // Targets of the host that have not come yet.
  std::map<std::string, Page> pages_;    // By target id.
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_BROWSER_WINDOWS_H_
