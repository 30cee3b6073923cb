#include "core/host/testing/fake_profiles.h"

#include "absl/strings/str_cat.h"

namespace varnic::host::testing {
namespace {

absl::Status NoSuchProfile(const std::string& id) {
  return absl::NotFoundError(absl::StrCat("there is no profile \"", id, "\""));
}

template <class Items, class Predicate>
void RemoveIf(Items& items, Predicate is_wanted) {
  for (int i = items.size() - 1; i >= 0; --i) {
    if (is_wanted(items.Get(i))) items.DeleteSubrange(i, 1);
  }
}

}  // namespace

FakeProfiles::FakeProfiles() {
  Add("default", "default").set_is_default(true);
}

rpc::ProfileInfo* FakeProfiles::Find(const std::string& id) {
  for (rpc::ProfileInfo& profile : *list_.mutable_profiles()) {
    if (profile.id().value() == (id.empty() ? "default" : id)) return &profile;
  }
  return nullptr;
}

rpc::BrowserInfo* FakeProfiles::FindBrowser(int64_t id) {
  for (rpc::ProfileInfo& profile : *list_.mutable_profiles()) {
    for (rpc::BrowserInfo& browser : *profile.mutable_browsers()) {
      if (browser.id().value() == id) return &browser;
    }
  }
  return nullptr;
}

void FakeProfiles::Changed() {
  if (on_change_ != nullptr) on_change_();
}

void FakeProfiles::ReleaseLists() {
  is_holding_ = false;
  for (const auto& answer : std::exchange(held_lists_, {})) answer();
}

void FakeProfiles::Path(const std::string& id, Reply<std::string> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply(Find(id)->path());
}

void FakeProfiles::Name(const std::string& id, Reply<std::string> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply(Find(id)->name());
}

void FakeProfiles::IsIncognito(const std::string& id, Reply<bool> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply(Find(id)->is_incognito());
}

void FakeProfiles::IsDefault(const std::string& id, Reply<bool> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply(Find(id)->is_default());
}

void FakeProfiles::CreateBrowser(const rpc::BrowserOptions& options, Reply<int64_t> reply) {
  rpc::ProfileInfo* profile = Find(options.profile_id().value());
  if (profile == nullptr) return reply(NoSuchProfile(options.profile_id().value()));
  profile->set_running(true);
  if (options.incognito() && !profile->is_incognito()) profile = &AddIncognito(*profile);
  rpc::BrowserInfo& browser = *profile->add_browsers();
  browser.mutable_id()->set_value(++browsers_made_);
  *browser.mutable_profile_id() = profile->id();
  browser.set_url(options.url().empty() ? "about:blank" : options.url());
  browser.set_headless(options.headless());
  Changed();
  reply(browsers_made_);
}

void FakeProfiles::SetAcceptLanguage(const std::string& id, const std::string& /*list*/,
                                     Reply<Done> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply(Done());
}

void FakeProfiles::GetAcceptLanguage(const std::string& id, Reply<std::string> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply("en-US,en");
}

void FakeProfiles::GetUserAgent(const std::string& id, Reply<UserAgent> reply) {
  if (Find(id) == nullptr) return reply(NoSuchProfile(id));
  reply(UserAgent());
}

void FakeProfiles::List(Reply<rpc::ProfileList> reply) {
  ++lists_;
  absl::StatusOr<rpc::ProfileList> list = list_;
  if (!list_status_.ok()) list = list_status_;
  if (!is_holding_) return reply(std::move(list));
  held_lists_.emplace_back([reply = std::move(reply), list = std::move(list)] { reply(list); });
}

void FakeProfiles::CreateProfile(const std::string& name, Reply<rpc::ProfileInfo> reply) {
  const std::string id = absl::StrCat("profile-", ++profiles_made_);
  const rpc::ProfileInfo profile = Add(id, name.empty() ? id : name);
  Changed();
  reply(profile);
}

void FakeProfiles::DeleteProfile(const std::string& id, Reply<Done> reply) {
  rpc::ProfileInfo* profile = Find(id);
  if (profile == nullptr) return reply(NoSuchProfile(id));
  if (profile->is_default()) {
    return reply(absl::FailedPreconditionError("the default profile stays"));
  }
  Remove(id);
  Changed();
  reply(Done());
}

void FakeProfiles::CloseBrowser(int64_t id, Reply<Done> reply) {
  const rpc::BrowserInfo* browser = FindBrowser(id);
  if (browser == nullptr) return reply(absl::NotFoundError(absl::StrCat("no browser ", id)));
  const std::string profile_id = browser->profile_id().value();
  rpc::ProfileInfo& profile = *Find(profile_id);
  RemoveIf(*profile.mutable_browsers(),
           [id](const auto& other) { return other.id().value() == id; });
  if (profile.is_incognito() && profile.browsers().empty()) Remove(profile_id);
  Changed();
  reply(Done());
}

void FakeProfiles::SetChangeListener(std::function<void()> on_change) {
  on_change_ = std::move(on_change);
}

rpc::ProfileInfo& FakeProfiles::Add(const std::string& id, const std::string& name) {
  rpc::ProfileInfo& profile = *list_.add_profiles();
  profile.mutable_id()->set_value(id);
  profile.set_name(name);
  profile.set_path(absl::StrCat("/profiles/", id));
  return profile;
}

rpc::ProfileInfo& FakeProfiles::AddIncognito(const rpc::ProfileInfo& parent) {
  rpc::ProfileInfo profile = parent;
  profile.clear_browsers();
  profile.set_is_default(false);
  profile.set_is_incognito(true);
  *profile.mutable_parent_id() = parent.id();
  profile.mutable_id()->set_value(
      absl::StrCat(parent.id().value(), "-incognito-", ++incognito_profiles_made_));
  return *list_.add_profiles() = profile;
}

void FakeProfiles::Remove(const std::string& id) {
  RemoveIf(*list_.mutable_profiles(), [&id](const auto& profile) {
    return profile.id().value() == id || profile.parent_id().value() == id;
  });
}

}  // namespace varnic::host::testing
