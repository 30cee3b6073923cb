#ifndef CORE_HOST_PROFILES_H_
#define CORE_HOST_PROFILES_H_

#include <cstdint>
#include <functional>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/user_agent.h"
#include "rpc/host/browser_host.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// Takes what a call found, or why it failed. It runs exactly once, on the RPC thread, maybe before
// the call returns; it may make other calls.
template <class T>
using Reply = std::function<void(absl::StatusOr<T>)>;

// The value of a call that has none.
struct Done {};

// `status` as the Reply of such a call takes it.
inline absl::StatusOr<Done> DoneOr(const absl::Status& status) {
  if (!status.ok()) return status;
  return Done();
}

// The profiles of a host and their browsers, as its services show them. A profile goes by its id;
// the empty id names the default one, an unknown one fails with NOT_FOUND.
//
// RPC thread only; no call blocks. Destroying it answers what is still open with UNAVAILABLE, then
// or later on the same thread. None of its callbacks may destroy it.
class Profiles {
 public:
  virtual ~Profiles() = default;

  // The profile's folder; of an incognito profile, as the name, that of its parent.
  virtual void Path(const std::string& id, Reply<std::string> reply) = 0;
  virtual void Name(const std::string& id, Reply<std::string> reply) = 0;
  virtual void IsIncognito(const std::string& id, Reply<bool> reply) = 0;
  virtual void IsDefault(const std::string& id, Reply<bool> reply) = 0;
  // Answers with the browser's id, which is never used again while the host runs.
  virtual void CreateBrowser(const rpc::BrowserOptions& options, Reply<int64_t> reply) = 0;
  // A list that NormalizeAcceptLanguage() refuses fails as it says.
  virtual void SetAcceptLanguage(const std::string& id, const std::string& list,
                                 Reply<Done> reply) = 0;
  virtual void GetAcceptLanguage(const std::string& id, Reply<std::string> reply) = 0;
  virtual void GetUserAgent(const std::string& id, Reply<UserAgent> reply) = 0;

  // Every profile with its browsers, the default one first, incognito ones behind their parents.
  virtual void List(Reply<rpc::ProfileList> reply) = 0;
  // An empty name: the profile's id.
  virtual void CreateProfile(const std::string& name, Reply<rpc::ProfileInfo> reply) = 0;
  virtual void DeleteProfile(const std::string& id, Reply<Done> reply) = 0;
  virtual void CloseBrowser(int64_t id, Reply<Done> reply) = 0;

  // `on_change` runs whenever what List() tells may have changed. One listener; null for none.
  virtual void SetChangeListener(std::function<void()> on_change) = 0;
  // What the machine's network is now.
  virtual void OnNetworkState(const rpc::NetworkChanged& state) = 0;
  // Ends everything in order: withdraws questions, closes browsers, starts no others. `on_closed`
  // runs once, maybe before this returns. Once only.
  virtual void Close(std::function<void()> on_closed) = 0;
};

}  // namespace varnic::host

#endif  // CORE_HOST_PROFILES_H_
