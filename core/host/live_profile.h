#ifndef CORE_HOST_LIVE_PROFILE_H_
#define CORE_HOST_LIVE_PROFILE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "core/host/browser/browser_keeper.h"
#include "core/host/browser/browser_window.h"
#include "core/host/browser/profile_browser.h"
#include "core/host/profile_store.h"
#include "core/host/profiles.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "core/host/user_agent.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "rpc/host/browser_host.pb.h"
#include "rpc/identifiers.pb.h"

namespace varnic::host {

// What the live profiles of a host have in common; all of it outlives them.
struct LiveProfileHost {
  net::EventLoop& loop;
  TaskThread& files;
  QuestionAsker& asker;
  // Used on the files thread alone, by tasks that may outlive the host's profiles.
  const std::shared_ptr<ProfileStore> store;
  // Of every browser; each has its profile's user_data_dir.
  const BrowserKeeperOptions keeper;
  std::function<void()> on_change;  // What is to be told of a profile has changed.
  int64_t last_browser_id = 0;
  bool is_online = true;
};

// One persistent profile of a host with live browsers, and the incognito profiles that belong to
// it: who they are, which browsers they have, and where a setting is changed, in the browser that
// runs or on disk.
//
// RPC thread only. A reply may come before a call returns. Neither replies nor `on_change` may
// destroy it, but the callbacks of Close() may do so later, from the loop. Destroying it kills a
// browser that runs.
class LiveProfile : private ProfileBrowser::Visitor {
 public:
  LiveProfile(LiveProfileHost& host, StoredProfile stored);
  LiveProfile(const LiveProfile&) = delete;
  LiveProfile& operator=(const LiveProfile&) = delete;
  ~LiveProfile() override;

  const std::string& id() const { return stored_.id; }
  const std::string& name() const { return stored_.name; }
  const std::string& path() const { return stored_.path; }
  bool is_default() const { return stored_.id == kDefaultProfile; }
  // Close() was called.
  bool is_closed() const { return is_closed_; }

  bool HasIncognito(const std::string& id) const;
  bool HasBrowser(int64_t id) const { return windows_.count(id) != 0; }
  size_t browsers() const { return windows_.size(); }
  // Itself, and then its incognito profiles.
  void AddTo(rpc::ProfileList& list) const;
  rpc::ProfileInfo Info() const;

  // Opens a browser in `profile`, which is itself or one of its incognito profiles; with
  // `incognito`, in a new one of these. `user_agent` counts the first time.
  void OpenBrowser(const std::string& profile, bool incognito, const UserAgent& user_agent,
                   const WindowOptions& options, Reply<int64_t> reply);
  void CloseBrowser(int64_t id, Reply<Done> reply);
  // Closes all its windows.
  void CloseIncognito(const std::string& id, const Reply<Done>& reply);

  // `list` is as NormalizeAcceptLanguage() leaves it. A reply may be dropped when this is
  // destroyed.
  void SetAcceptLanguage(const std::string& list, Reply<Done> reply);
  void GetAcceptLanguage(const std::string& profile, Reply<std::string> reply);
  void SetNetworkState(bool is_online);

  // Ends the browser in order; opens no other. `on_closed` runs once, maybe at once. May be called
  // again, before or after that.
  void Close(std::function<void()> on_closed);
  // After Close() has ended, and not from inside it.
  void Reopen();

 private:
  struct Incognito {
    std::string id;
    std::string context;
  };

  // ProfileBrowser::Visitor:
  void OnWindowOpened(const BrowserWindow& window) override;
  void OnWindowChanged(const BrowserWindow& window) override;
  void OnWindowClosed(const BrowserWindow& window) override;
  void OnContextClosed(const std::string& context) override;
  void OnRunning(bool is_running) override;

  ProfileBrowser& Browser(const UserAgent& user_agent);
  bool is_running() const { return browser_ != nullptr && browser_->is_running(); }
  // 0 if there is none.
  int64_t IdOf(const std::string& target_id) const;
  std::string ContextOf(const std::string& profile) const;
  std::vector<ProfileId> QuestionKeys(const std::string& context) const;
  void AddBrowsers(const std::string& context, rpc::ProfileInfo& info) const;
  // The browser has the languages, but may not have written them yet. Answers when they are safe.
  void Remember(const std::string& list, Reply<Done> reply);
  void Settle();
  void OnClosed();

  LiveProfileHost& host_;
  StoredProfile stored_;
  std::map<int64_t, BrowserWindow> windows_;  // By the ids of browsers.
  std::vector<Incognito> incognitos_;
  int last_incognito_ = 0;
  bool is_closed_ = false;
  bool has_ended_ = false;  // After Close().
  std::vector<std::function<void()>> on_closed_;
  net::Timer written_timer_;
  std::unique_ptr<ProfileBrowser> browser_;  // None before the first window.
  net::Lifetime lifetime_;                   // Last.
};

}  // namespace varnic::host

#endif  // CORE_HOST_LIVE_PROFILE_H_
