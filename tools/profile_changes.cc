#include "tools/profile_changes.h"

#include <cstdint>
#include <utility>

#include "absl/strings/str_cat.h"
#include "tools/message_json.h"
#include "tools/profile_table.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

using rpc::BrowserInfo;
using rpc::ProfileInfo;
using rpc::ProfilesChanged;
using Happenings = std::vector<Happening>;

const ProfileInfo* Find(const ProfilesChanged& state, const std::string& id) {
  for (const ProfileInfo& profile : state.profiles()) {
    if (profile.id().value() == id) return &profile;
  }
  return nullptr;
}

const BrowserInfo* Find(const ProfileInfo& profile, int64_t id) {
  for (const BrowserInfo& browser : profile.browsers()) {
    if (browser.id().value() == id) return &browser;
  }
  return nullptr;
}

Happening OfProfile(const ProfileInfo& profile, const std::string& change,
                    const std::string& for_people) {
  ProfileInfo state = profile;
  state.clear_id();
  state.clear_browsers();
  nlohmann::ordered_json json = MessageToJsonValue(state);
  json.erase("browsers");
  return {"profile",
          profile.id().value(),
          for_people,
          {{"change", change}, {"state", std::move(json)}}};
}

Happening OfBrowser(const BrowserInfo& browser, const ProfileInfo& profile,
                    const std::string& change, const std::string& for_people) {
  BrowserInfo state = browser;
  state.clear_profile_id();
  return {"browser",
          profile.id().value(),
          absl::StrCat("browser ", browser.id().value(), " ", for_people),
          {{"change", change}, {"browser", MessageToJsonValue(state)}}};
}

std::string NameText(const ProfileInfo& profile) {
  const std::string state = ProfileState(profile);
  return absl::StrCat(ShortWord(profile.name()),
                      state.empty() ? "" : absl::StrCat(" (", state, ")"));
}

std::string PageText(const BrowserInfo& browser) {
  return absl::StrCat(ShortWord(browser.url()), " ", ShortWord(browser.title()));
}

std::string OpenText(const BrowserInfo& browser) {
  return absl::StrCat(PageText(browser), " (", BrowserKind(browser), ")");
}

// A profile that was not there before, or of which nothing was known.
void TellNew(const ProfileInfo& profile, bool is_first, Happenings& told) {
  told.push_back(is_first
                     ? OfProfile(profile, "present", absl::StrCat("is there: ", NameText(profile)))
                     : OfProfile(profile, "created", absl::StrCat("created: ", NameText(profile))));
  for (const BrowserInfo& browser : profile.browsers()) {
    told.push_back(
        is_first
            ? OfBrowser(browser, profile, "present", absl::StrCat("is open: ", OpenText(browser)))
            : OfBrowser(browser, profile, "opened", absl::StrCat("opened: ", OpenText(browser))));
  }
}

void TellClosedBrowsers(const ProfileInfo& before, const ProfileInfo& now, Happenings& told) {
  for (const BrowserInfo& browser : before.browsers()) {
    if (Find(now, browser.id().value()) != nullptr) continue;
    told.push_back(OfBrowser(browser, before, "closed", "closed"));
  }
}

void TellOpenBrowsers(const ProfileInfo& before, const ProfileInfo& now, Happenings& told) {
  for (const BrowserInfo& browser : now.browsers()) {
    const BrowserInfo* former = Find(before, browser.id().value());
    if (former == nullptr) {
      told.push_back(
          OfBrowser(browser, now, "opened", absl::StrCat("opened: ", OpenText(browser))));
    } else if (former->url() != browser.url() || former->title() != browser.title()) {
      told.push_back(OfBrowser(browser, now, "shows", absl::StrCat("shows ", PageText(browser))));
    }
  }
}

void TellChanged(const ProfileInfo& before, const ProfileInfo& now, Happenings& told) {
  if (before.name() != now.name()) {
    told.push_back(OfProfile(now, "renamed", absl::StrCat("renamed: ", ShortWord(now.name()))));
  }
  if (now.is_default() && !before.is_default()) {
    told.push_back(OfProfile(now, "default", "is the default profile"));
  }
  if (now.running() && !before.running()) told.push_back(OfProfile(now, "started", "started"));
  TellClosedBrowsers(before, now, told);
  TellOpenBrowsers(before, now, told);
  if (before.running() && !now.running()) told.push_back(OfProfile(now, "stopped", "stopped"));
}

void TellGone(const ProfileInfo& profile, Happenings& told) {
  TellClosedBrowsers(profile, ProfileInfo(), told);
  told.push_back(OfProfile(profile, "deleted", "deleted"));
}

Happening TellAbsent(const std::string& id) {
  return {"profile", id, "is not there", {{"change", "absent"}}};
}

}  // namespace

std::vector<Happening> ProfileChanges::Take(const ProfilesChanged& event) {
  const std::string& key = event.profile_id().value();
  const bool is_first = seen_.count(key) == 0;
  const ProfilesChanged before = std::exchange(seen_[key], event);
  Happenings told;
  if (is_first && !key.empty() && event.profiles().empty()) told.push_back(TellAbsent(key));
  for (const ProfileInfo& profile : before.profiles()) {
    if (Find(event, profile.id().value()) == nullptr) TellGone(profile, told);
  }
  for (const ProfileInfo& profile : event.profiles()) {
    const ProfileInfo* former = Find(before, profile.id().value());
    if (former == nullptr) {
      TellNew(profile, is_first, told);
    } else {
      TellChanged(*former, profile, told);
    }
  }
  return told;
}

}  // namespace varnic::tools
