#ifndef CORE_HOST_FILE_PROFILES_H_
#define CORE_HOST_FILE_PROFILES_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "absl/status/statusor.h"
#include "core/host/profiles.h"
#include "core/host/task_thread.h"
#include "core/host/user_agent.h"
#include "core/host/user_agent_source.h"
#include "core/host/user_data_dir.h"

namespace varnic::host {

struct FileProfilesOptions {
  // What every profile calls itself; absent: what the installed browser calls itself.
  std::optional<UserAgent> user_agent;
  // The browser's program, a path or a name in PATH; empty: the system's Chromium.
  std::string browser;
};

// The profiles of a Chromium user-data directory, known by their files alone. It runs no browser,
// so what needs one fails with FAILED_PRECONDITION, no profile is incognito, and nothing ever
// changes that its listener would have to know.
//
// Files and the browser's version are read on a thread of its own: a call returns at once, and its
// reply runs later, in the order of the calls. The destructor waits for the task that is running;
// the calls behind it are answered with UNAVAILABLE. Replies do not touch this object.
class FileProfiles final : public Profiles {
 public:
  // `post` runs a function on the RPC thread, later, and may be called on any thread
  // (RpcServer::Post).
  FileProfiles(UserDataDir directory, FileProfilesOptions options, TaskThread::PostFunction post);
  FileProfiles(const FileProfiles&) = delete;
  FileProfiles& operator=(const FileProfiles&) = delete;
  ~FileProfiles() override;

  // Profiles:
  void Path(const std::string& id, Reply<std::string> reply) override;
  void Name(const std::string& id, Reply<std::string> reply) override;
  void IsIncognito(const std::string& id, Reply<bool> reply) override;
  void IsDefault(const std::string& id, Reply<bool> reply) override;
  void CreateBrowser(const rpc::BrowserOptions& options, Reply<int64_t> reply) override;
  void SetAcceptLanguage(const std::string& id, const std::string& list,
                         Reply<Done> reply) override;
  void GetAcceptLanguage(const std::string& id, Reply<std::string> reply) override;
  void GetUserAgent(const std::string& id, Reply<UserAgent> reply) override;
  void List(Reply<rpc::ProfileList> reply) override;
  void CreateProfile(const std::string& name, Reply<rpc::ProfileInfo> reply) override;
  void DeleteProfile(const std::string& id, Reply<Done> reply) override;
  void CloseBrowser(int64_t id, Reply<Done> reply) override;
  void SetChangeListener(std::function<void()> /*on_change*/) override {}
  void OnNetworkState(const rpc::NetworkChanged& /*state*/) override {}
  // There is nothing to end.
  void Close(std::function<void()> on_closed) override { on_closed(); }

 private:
  // Runs `work` on the task thread, and then `reply` on the RPC thread.
  template <typename Value>
  void Answer(Reply<Value> reply, std::function<absl::StatusOr<Value>()> work);
  // Fails with what the files say against the profile `id`, or else with FAILED_PRECONDITION and
  // `why`.
  template <typename Value>
  void Refuse(const std::string& id, Reply<Value> reply, const std::string& why);

  absl::StatusOr<rpc::ProfileList> ListProfiles() const;  // Task thread only.

  UserDataDir directory_;        // Task thread only.
  UserAgentSource user_agents_;  // Task thread only.
  std::atomic<bool> is_ending_ = false;
  TaskThread tasks_;  // Last: its tasks use all of the above.
};

}  // namespace varnic::host

#endif  // CORE_HOST_FILE_PROFILES_H_
