#include "core/host/browser_profiles.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/host/accept_language.h"
#include "core/host/answered_reply.h"
#include "core/host/short_text.h"
#include "core/host/window_request.h"

namespace varnic::host {
namespace {

absl::Status IsEnding() {
  return absl::UnavailableError("the host is shutting down");
}

}  // namespace

absl::StatusOr<std::unique_ptr<BrowserProfiles>> BrowserProfiles::Create(
    net::EventLoop& loop, TaskThread& files, QuestionAsker& asker, ProfileStore store,
    BrowserProfilesOptions options) {
  auto shared_store = std::make_shared<ProfileStore>(std::move(store));
  absl::StatusOr<std::vector<StoredProfile>> stored = shared_store->List();
  if (!stored.ok()) return stored.status();
  auto profiles = std::unique_ptr<BrowserProfiles>(
      new BrowserProfiles(loop, files, asker, std::move(shared_store), std::move(options)));
  for (StoredProfile& profile : *stored) profiles->Add(std::move(profile));
  return profiles;
}

BrowserProfiles::BrowserProfiles(net::EventLoop& loop, TaskThread& files, QuestionAsker& asker,
                                 std::shared_ptr<ProfileStore> store,
                                 BrowserProfilesOptions options)
    : max_browsers_(options.max_browsers),
      user_agent_(options.user_agent),
      user_agents_(std::make_shared<UserAgentSource>(std::move(options.user_agent),
                                                     options.keeper.process.launch.program)),
      host_{loop,
            files,
            asker,
            std::move(store),
            std::move(options.keeper),
            [this] { NotifyChange(); }} {}

BrowserProfiles::~BrowserProfiles() {
  VARNIC_CHECK(host_.loop.IsLoopThread());
  on_change_ = nullptr;
}

void BrowserProfiles::Add(StoredProfile profile) {
  profiles_.push_back(std::make_unique<LiveProfile>(host_, std::move(profile)));
}

LiveProfile* BrowserProfiles::FindPersistent(const std::string& id) const {
  for (const auto& profile : profiles_) {
    if (profile->id() == id) return profile.get();
  }
  return nullptr;
}

absl::StatusOr<BrowserProfiles::Place> BrowserProfiles::Find(const std::string& id) const {
  const std::string& known_id = id.empty() ? kDefaultProfile : id;
  LiveProfile* const persistent = FindPersistent(known_id);
  if (persistent != nullptr) return Place{persistent, known_id, /*is_incognito=*/false};
  for (const auto& profile : profiles_) {
    if (profile->HasIncognito(id)) return Place{profile.get(), id, /*is_incognito=*/true};
  }
  return NoSuchProfile(known_id);
}

absl::StatusOr<BrowserProfiles::Place> BrowserProfiles::FindOpen(const std::string& id) const {
  absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return place;
  if (is_closed_) return IsEnding();
  if (!place->profile->is_closed()) return place;
  return absl::FailedPreconditionError(
      absl::StrCat("the profile \"", place->profile->id(), "\" is being deleted"));
}

void BrowserProfiles::Path(const std::string& id, Reply<std::string> reply) {
  const absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return reply(place.status());
  reply(place->profile->path());
}

void BrowserProfiles::Name(const std::string& id, Reply<std::string> reply) {
  const absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return reply(place.status());
  reply(place->profile->name());
}

void BrowserProfiles::IsIncognito(const std::string& id, Reply<bool> reply) {
  const absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return reply(place.status());
  reply(place->is_incognito);
}

void BrowserProfiles::IsDefault(const std::string& id, Reply<bool> reply) {
  const absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return reply(place.status());
  reply(place->profile->is_default() && !place->is_incognito);
}

void BrowserProfiles::CreateBrowser(const rpc::BrowserOptions& options, Reply<int64_t> reply) {
  const absl::StatusOr<Place> place = FindOpen(options.profile_id().value());
  if (!place.ok()) return reply(place.status());
  const absl::StatusOr<WindowOptions> window = WindowOptionsFrom(options);
  if (!window.ok()) return reply(window.status());
  absl::Status status = CheckDisplay(*window);
  if (status.ok()) status = CheckRoom();
  if (!status.ok()) return reply(status);

  ++opening_;
  reply = AnsweredReply<int64_t>([count_down = lifetime_.Guard([this] { --opening_; }),
                                  reply](const absl::StatusOr<int64_t>& id) mutable {
    count_down();
    reply(id);
  });
  const bool new_incognito = options.incognito() && !place->is_incognito;
  WithUserAgent(lifetime_.Guard([this, id = place->id, new_incognito, window = *window,
                                 reply](const absl::StatusOr<UserAgent>& user_agent) {
    if (!user_agent.ok()) return reply(user_agent.status());
    OpenBrowser(id, new_incognito, *user_agent, window, reply);
  }));
}

absl::Status BrowserProfiles::CheckRoom() const {
  size_t browsers = opening_;
  for (const auto& profile : profiles_) browsers += profile->browsers();
  if (browsers < max_browsers_) return absl::OkStatus();
  return absl::ResourceExhaustedError(
      absl::StrCat("there are ", browsers, " browsers, and may be ", max_browsers_));
}

void BrowserProfiles::WithUserAgent(Reply<UserAgent> on_known) {
  if (user_agent_.has_value()) return on_known(*user_agent_);
  auto keep = lifetime_.Guard([this](const UserAgent& found) { user_agent_ = found; });
  host_.files.Run(
      [source = user_agents_] { return source->Get(); },
      [keep, on_known = std::move(on_known)](const absl::StatusOr<UserAgent>& user_agent) mutable {
        if (user_agent.ok()) keep(*user_agent);
        on_known(user_agent);
      });
}

// Looks for the profile again: it may have gone meanwhile.
void BrowserProfiles::OpenBrowser(const std::string& id, bool incognito,
                                  const UserAgent& user_agent, const WindowOptions& options,
                                  Reply<int64_t> reply) {
  const absl::StatusOr<Place> place = FindOpen(id);
  if (!place.ok()) return reply(place.status());
  place->profile->OpenBrowser(id, incognito, user_agent, options, std::move(reply));
}

void BrowserProfiles::SetAcceptLanguage(const std::string& id, const std::string& list,
                                        Reply<Done> reply) {
  const absl::StatusOr<Place> place = FindOpen(id);
  if (!place.ok()) return reply(place.status());
  const absl::StatusOr<std::string> languages = NormalizeAcceptLanguage(list);
  if (!languages.ok()) return reply(languages.status());
  if (place->is_incognito) {
    return reply(absl::FailedPreconditionError(
        absl::StrCat("the profile \"", id, "\" is incognito, and has the languages of \"",
                     place->profile->id(), "\": set them there")));
  }
  place->profile->SetAcceptLanguage(*languages, AnsweredReply(std::move(reply)));
}

void BrowserProfiles::GetAcceptLanguage(const std::string& id, Reply<std::string> reply) {
  const absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return reply(place.status());
  place->profile->GetAcceptLanguage(place->id, AnsweredReply(std::move(reply)));
}

void BrowserProfiles::GetUserAgent(const std::string& id, Reply<UserAgent> reply) {
  const absl::StatusOr<Place> place = Find(id);
  if (!place.ok()) return reply(place.status());
  WithUserAgent(AnsweredReply(std::move(reply)));
}

void BrowserProfiles::List(Reply<rpc::ProfileList> reply) {
  rpc::ProfileList list;
  for (const auto& profile : profiles_) profile->AddTo(list);
  reply(std::move(list));
}

void BrowserProfiles::CreateProfile(const std::string& name, Reply<rpc::ProfileInfo> reply) {
  if (is_closed_) return reply(IsEnding());
  const Reply<rpc::ProfileInfo> answered = AnsweredReply(std::move(reply));
  host_.files.Run([store = host_.store, name] { return store->Create(name); },
                  lifetime_.Guard([this, answered](absl::StatusOr<StoredProfile> stored) {
                    if (!stored.ok()) return answered(stored.status());
                    Add(*std::move(stored));
                    const rpc::ProfileInfo info = profiles_.back()->Info();
                    NotifyChange();
                    answered(info);
                  }));
}

void BrowserProfiles::DeleteProfile(const std::string& id, Reply<Done> reply) {
  const absl::StatusOr<Place> place = FindOpen(id);
  if (!place.ok()) return reply(place.status());
  if (place->is_incognito) {
    return place->profile->CloseIncognito(id, AnsweredReply(std::move(reply)));
  }
  if (place->profile->is_default()) {
    return reply(absl::FailedPreconditionError("the default profile cannot be deleted"));
  }
  const Reply<Done> answered = AnsweredReply(std::move(reply));
  place->profile->Close(
      lifetime_.Guard([this, id = place->id, answered] { DeleteFiles(id, answered); }));
}

void BrowserProfiles::DeleteFiles(const std::string& id, Reply<Done> reply) {
  host_.files.Run(
      [store = host_.store, id] {
        Deletion deletion;
        deletion.status = store->Delete(id);
        deletion.is_gone = !store->Has(id);
        return deletion;
      },
      lifetime_.Guard([this, id, reply = std::move(reply)](const Deletion& deletion) {
        OnDeleted(id, deletion);
        if (!deletion.status.ok()) return reply(deletion.status);
        reply(Done());
      }));
}

void BrowserProfiles::OnDeleted(const std::string& id, const Deletion& deletion) {
  const auto profile = std::find_if(profiles_.begin(), profiles_.end(),
                                    [&id](const auto& candidate) { return candidate->id() == id; });
  if (deletion.is_gone) {
    profiles_.erase(profile);
  } else if (!is_closed_) {
    (*profile)->Reopen();
  }
  NotifyChange();
}

void BrowserProfiles::CloseBrowser(int64_t id, Reply<Done> reply) {
  for (const auto& profile : profiles_) {
    if (!profile->HasBrowser(id)) continue;
    return profile->CloseBrowser(id, AnsweredReply(std::move(reply)));
  }
  reply(absl::NotFoundError(absl::StrCat("there is no browser ", id)));
}

void BrowserProfiles::SetChangeListener(std::function<void()> on_change) {
  on_change_ = std::move(on_change);
}

void BrowserProfiles::NotifyChange() {
  if (on_change_ != nullptr) on_change_();
}

void BrowserProfiles::OnNetworkState(const rpc::NetworkChanged& state) {
  if (std::exchange(host_.is_online, state.online()) == state.online()) return;
  for (const auto& profile : profiles_) profile->SetNetworkState(state.online());
}

void BrowserProfiles::Close(std::function<void()> on_closed) {
  is_closed_ = true;
  on_closed_ = std::move(on_closed);
  closing_ = profiles_.size();
  // Not the list itself: it may change when a profile has closed.
  std::vector<LiveProfile*> profiles;
  for (const auto& profile : profiles_) profiles.push_back(profile.get());
  const auto count_down = [this] {
    if (--closing_ == 0) std::exchange(on_closed_, nullptr)();
  };
  for (LiveProfile* profile : profiles) profile->Close(lifetime_.Guard(count_down));
}

}  // namespace varnic::host
