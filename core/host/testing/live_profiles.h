#ifndef CORE_HOST_TESTING_LIVE_PROFILES_H_
#define CORE_HOST_TESTING_LIVE_PROFILES_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "core/host/browser_profiles.h"
#include "core/host/profile_store.h"
#include "core/host/profiles.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "core/host/testing/temporary_folder.h"
#include "core/net/event_loop.h"
#include "core/server/loop_scheduler.h"
#include "gtest/gtest.h"

namespace varnic::host::testing {

// BrowserProfiles in a folder of their own, with all that they need, on a loop that the test runs
// while it waits.
class LiveProfiles {
 public:
  explicit LiveProfiles(BrowserProfilesOptions options) : options_(std::move(options)) { Open(); }
  LiveProfiles(const LiveProfiles&) = delete;
  LiveProfiles& operator=(const LiveProfiles&) = delete;
  ~LiveProfiles() { CloseAndDestroy(); }

  BrowserProfiles& profiles() { return *profiles_; }
  net::EventLoop& loop() { return loop_; }
  const TemporaryFolder& folder() const { return folder_; }
  std::string path() const { return folder_.Path("profiles"); }
  int changes() const { return changes_; }

  // What a call that is made with a reply is answered.
  template <class T>
  absl::StatusOr<T> Answer(const std::function<void(Reply<T>)>& call) {
    std::optional<absl::StatusOr<T>> answer;
    call([&answer](absl::StatusOr<T> value) {
      EXPECT_FALSE(answer.has_value()) << "answered twice";
      answer = std::move(value);
    });
    loop_.RunUntil([&answer] { return answer.has_value(); });
    return *answer;
  }

  absl::StatusOr<int64_t> OpenBrowser(const std::string& profile, const std::string& url = "",
                                      bool incognito = false) {
    rpc::BrowserOptions options;
    options.mutable_profile_id()->set_value(profile);
    options.set_url(url);
    options.set_headless(true);
    options.set_incognito(incognito);
    return Answer<int64_t>([&](auto reply) { profiles_->CreateBrowser(options, reply); });
  }
  // The id of a new profile.
  std::string CreateProfile(const std::string& name = "") {
    const auto profile =
        Answer<rpc::ProfileInfo>([&](auto reply) { profiles_->CreateProfile(name, reply); });
    return profile.ok() ? profile->id().value() : profile.status().ToString();
  }
  absl::Status DeleteProfile(const std::string& id) {
    return Answer<Done>([&](auto reply) { profiles_->DeleteProfile(id, reply); }).status();
  }
  absl::Status CloseBrowser(int64_t id) {
    return Answer<Done>([&](auto reply) { profiles_->CloseBrowser(id, reply); }).status();
  }
  absl::Status SetLanguages(const std::string& id, const std::string& list) {
    return Answer<Done>([&](auto reply) { profiles_->SetAcceptLanguage(id, list, reply); })
        .status();
  }
  // The list, or the failure.
  std::string Languages(const std::string& id) {
    const auto list =
        Answer<std::string>([&](auto reply) { profiles_->GetAcceptLanguage(id, reply); });
    return list.ok() ? *list : list.status().ToString();
  }
  // "default:1,2 profile-1:": the profiles with their browsers.
  std::string List() {
    std::string text;
    const auto list = Answer<rpc::ProfileList>([&](auto reply) { profiles_->List(reply); });
    for (const rpc::ProfileInfo& profile : list->profiles()) {
      absl::StrAppend(&text, text.empty() ? "" : " ", profile.id().value(), ":");
      for (const rpc::BrowserInfo& browser : profile.browsers()) {
        absl::StrAppend(&text, text.back() == ':' ? "" : ",", browser.id().value());
      }
    }
    return text;
  }

  void Close() {
    bool is_closed = false;
    profiles_->Close([&is_closed] { is_closed = true; });
    loop_.RunUntil([&is_closed] { return is_closed; });
  }
  // As a host that is stopped and started again.
  void Restart() {
    CloseAndDestroy();
    Open();
  }
  // As a host that is told twice to stop, and started again: its browsers are killed.
  void RestartAtOnce() {
    Destroy();
    Open();
  }
  // Waits for the files' thread, too.
  void CloseAndDestroy() {
    if (profiles_ == nullptr) return;
    Close();
    Destroy();
  }

 private:
  void Destroy() {
    profiles_ = nullptr;
    files_ = nullptr;
    asker_ = nullptr;
    loop_.RunPending();
  }
  void Open() {
    files_ = std::make_unique<TaskThread>(
        [this](std::function<void()> task) { loop_.Post(std::move(task)); });
    asker_ = std::make_unique<QuestionAsker>(scheduler_, QuestionOptions());
    absl::StatusOr<ProfileStore> store = ProfileStore::Open(path());
    ASSERT_TRUE(store.ok()) << store.status();
    auto profiles = BrowserProfiles::Create(loop_, *files_, *asker_, *std::move(store), options_);
    ASSERT_TRUE(profiles.ok()) << profiles.status();
    profiles_ = *std::move(profiles);
    profiles_->SetChangeListener([this] { ++changes_; });
  }

  const BrowserProfilesOptions options_;
  const TemporaryFolder folder_;
  int changes_ = 0;
  net::EventLoop loop_;
  LoopScheduler scheduler_{loop_};
  std::unique_ptr<QuestionAsker> asker_;
  std::unique_ptr<TaskThread> files_;
  std::unique_ptr<BrowserProfiles> profiles_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_LIVE_PROFILES_H_
