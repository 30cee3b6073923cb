#ifndef CORE_HOST_TESTING_FAKE_PROFILES_H_
#define CORE_HOST_TESTING_FAKE_PROFILES_H_

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/profiles.h"
#include "rpc/host/browser_host.pb.h"

namespace varnic::host::testing {

// Profiles with browsers that are nothing but entries in a list, for tests of what stands on them.
// Begins with the default profile, "default". Answers at once, but lists when the test says so.
class FakeProfiles : public Profiles {
 public:
  FakeProfiles();

  // For the test. Whoever changes what it gets calls Changed().
  rpc::ProfileInfo* Find(const std::string& id);
  rpc::BrowserInfo* FindBrowser(int64_t id);
  void Changed();

  // Until ReleaseLists(), List() does not answer; lists show what there was when they were asked.
  void HoldLists() { is_holding_ = true; }
  void ReleaseLists();
  // What List() fails with; OK: it does not.
  void FailLists(absl::Status status) { list_status_ = std::move(status); }
  int lists() const { return lists_; }
  bool has_listener() const { return on_change_ != nullptr; }

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
  void SetChangeListener(std::function<void()> on_change) override;
  void OnNetworkState(const rpc::NetworkChanged& /*state*/) override {}
  void Close(std::function<void()> on_closed) override { on_closed(); }

 private:
  rpc::ProfileInfo& Add(const std::string& id, const std::string& name);
  rpc::ProfileInfo& AddIncognito(const rpc::ProfileInfo& parent);
  void Remove(const std::string& id);

  rpc::ProfileList list_;
  std::function<void()> on_change_;
  absl::Status list_status_;
  std::vector<std::function<void()>> held_lists_;
  bool is_holding_ = false;
  int lists_ = 0;
  int profiles_made_ = 0;
  int incognito_profiles_made_ = 0;
  int64_t browsers_made_ = 0;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_FAKE_PROFILES_H_
