#ifndef CORE_HOST_BROWSER_PROFILES_H_
#define CORE_HOST_BROWSER_PROFILES_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/browser/browser_keeper.h"
#include "core/host/live_profile.h"
#include "core/host/profile_store.h"
#include "core/host/profiles.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "core/host/user_agent.h"
#include "core/host/user_agent_source.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"

namespace varnic::host {

struct BrowserProfilesOptions {
  // How browsers are started: which program, with or without its sandbox, how often after it has
  // crashed. The directory, the mode and the user agent are each profile's.
  BrowserKeeperOptions keeper;
  // What every profile calls itself; absent: what the program calls itself.
  std::optional<UserAgent> user_agent;
  // Windows that may be asked for at a time, of all profiles; each takes some 40 MiB. Pages may
  // open more.
  size_t max_browsers = 200;
};

// The profiles of a ProfileStore, each with a browser process of its own, which is started for the
// first window and again after it has died.
//
// An incognito profile is made by CreateBrowser with `incognito` on a persistent one: it gets an id
// of its own, "<parent>-incognito-<n>", never used again while the host runs, and is gone with its
// last browser. What a running browser knows of its profile is asked of it, everything else is read
// from disk; a language that is set counts from then on, and stays on disk, whatever comes. No call
// but CreateBrowser starts a browser.
//
// Lives on the loop's thread, as its browsers do. Destroying it kills those that run: call Close()
// before, and wait. `files` must post to the loop.
class BrowserProfiles final : public Profiles {
 public:
  // Reads which profiles there are, and so blocks. The loop, `files` and the asker outlive the
  // result.
  static absl::StatusOr<std::unique_ptr<BrowserProfiles>> Create(net::EventLoop& loop,
                                                                 TaskThread& files,
                                                                 QuestionAsker& asker,
                                                                 ProfileStore store,
                                                                 BrowserProfilesOptions options);
  BrowserProfiles(const BrowserProfiles&) = delete;
  BrowserProfiles& operator=(const BrowserProfiles&) = delete;
  ~BrowserProfiles() override;

  // Profiles:
  void Path(const std::string& id, Reply<std::string> reply) override;
  void Name(const std::string& id, Reply<std::string> reply) override;
  void IsIncognito(const std::string& id, Reply<bool> reply) override;
  void IsDefault(const std::string& id, Reply<bool> reply) override;
  // FAILED_PRECONDITION: a window without a display, or in the other mode than that in which the
  // profile's browser has windows. INVALID_ARGUMENT: a url that cannot be opened.
  // RESOURCE_EXHAUSTED: there are max_browsers.
  void CreateBrowser(const rpc::BrowserOptions& options, Reply<int64_t> reply) override;
  // FAILED_PRECONDITION for an incognito profile: it has its parent's.
  void SetAcceptLanguage(const std::string& id, const std::string& list,
                         Reply<Done> reply) override;
  void GetAcceptLanguage(const std::string& id, Reply<std::string> reply) override;
  void GetUserAgent(const std::string& id, Reply<UserAgent> reply) override;
  void List(Reply<rpc::ProfileList> reply) override;
  void CreateProfile(const std::string& name, Reply<rpc::ProfileInfo> reply) override;
  // Of an incognito profile: closes its browsers.
  void DeleteProfile(const std::string& id, Reply<Done> reply) override;
  void CloseBrowser(int64_t id, Reply<Done> reply) override;
  void SetChangeListener(std::function<void()> on_change) override;
  void OnNetworkState(const rpc::NetworkChanged& state) override;
  void Close(std::function<void()> on_closed) override;

 private:
  // A persistent profile, or one of its incognito profiles.
  struct Place {
    LiveProfile* profile = nullptr;
    std::string id;
    bool is_incognito = false;
  };
  // What deleting a profile has come to.
  struct Deletion {
    absl::Status status;
    bool is_gone = false;
  };

  BrowserProfiles(net::EventLoop& loop, TaskThread& files, QuestionAsker& asker,
                  std::shared_ptr<ProfileStore> store, BrowserProfilesOptions options);

  void Add(StoredProfile profile);
  LiveProfile* FindPersistent(const std::string& id) const;
  absl::StatusOr<Place> Find(const std::string& id) const;
  // The same for a call that changes something: UNAVAILABLE after Close(), FAILED_PRECONDITION
  // while the profile is being deleted.
  absl::StatusOr<Place> FindOpen(const std::string& id) const;
  absl::Status CheckRoom() const;
  // Calls `on_known` once, maybe at once.
  void WithUserAgent(Reply<UserAgent> on_known);
  void OpenBrowser(const std::string& id, bool incognito, const UserAgent& user_agent,
                   const WindowOptions& options, Reply<int64_t> reply);
  void DeleteFiles(const std::string& id, Reply<Done> reply);
  void OnDeleted(const std::string& id, const Deletion& deletion);
  void NotifyChange();

  const size_t max_browsers_;
  std::optional<UserAgent> user_agent_;  // Once it is known.
  // Used on the files thread alone, by tasks that may outlive this.
  const std::shared_ptr<UserAgentSource> user_agents_;
  LiveProfileHost host_;
  std::function<void()> on_change_;
  size_t opening_ = 0;  // Browsers that were asked for and are not there yet.
  bool is_closed_ = false;
  size_t closing_ = 0;  // Profiles that Close() waits for.
  std::function<void()> on_closed_;
  std::vector<std::unique_ptr<LiveProfile>> profiles_;  // The default one first.
  net::Lifetime lifetime_;                              // Last.
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_PROFILES_H_
