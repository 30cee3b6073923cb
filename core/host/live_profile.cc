#include "core/host/live_profile.h"

#include <algorithm>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "core/host/answered_reply.h"

namespace varnic::host {
namespace {

// Chromium writes its settings every ten seconds.
constexpr absl::Duration kWritingTime = absl::Seconds(15);

ProfileId AsId(const std::string& id) {
  ProfileId result;
  result.set_value(id);
  return result;
}

}  // namespace

LiveProfile::LiveProfile(LiveProfileHost& host, StoredProfile stored)
    : host_(host), stored_(std::move(stored)), written_timer_(host.loop) {}

LiveProfile::~LiveProfile() = default;

bool LiveProfile::HasIncognito(const std::string& id) const {
  return std::any_of(incognitos_.begin(), incognitos_.end(),
                     [&id](const Incognito& incognito) { return incognito.id == id; });
}

void LiveProfile::AddTo(rpc::ProfileList& list) const {
  *list.add_profiles() = Info();
  for (const Incognito& incognito : incognitos_) {
    rpc::ProfileInfo& info = *list.add_profiles();
    info.mutable_id()->set_value(incognito.id);
    info.set_name(stored_.name);
    info.set_path(stored_.path);
    info.set_is_incognito(true);
    info.mutable_parent_id()->set_value(stored_.id);
    info.set_running(is_running());
    AddBrowsers(incognito.context, info);
  }
}

rpc::ProfileInfo LiveProfile::Info() const {
  rpc::ProfileInfo info;
  info.mutable_id()->set_value(stored_.id);
  info.set_name(stored_.name);
  info.set_path(stored_.path);
  info.set_is_default(is_default());
  info.set_running(is_running());
  AddBrowsers(/*context=*/"", info);
  return info;
}

void LiveProfile::AddBrowsers(const std::string& context, rpc::ProfileInfo& info) const {
  for (const auto& [id, window] : windows_) {
    if (window.context != context) continue;
    rpc::BrowserInfo& browser = *info.add_browsers();
    browser.mutable_id()->set_value(id);
    *browser.mutable_profile_id() = info.id();
    browser.set_url(window.url);
    browser.set_title(window.title);
    browser.set_headless(window.headless);
  }
}

void LiveProfile::OpenBrowser(const std::string& profile, bool incognito,
                              const UserAgent& user_agent, const WindowOptions& options,
                              Reply<int64_t> reply) {
  ProfileBrowser& browser = Browser(user_agent);
  auto find =
      lifetime_.Guard([this](const std::string& target_id, int64_t& id) { id = IdOf(target_id); });
  Reply<BrowserWindow> on_window =
      [find, reply = std::move(reply)](const absl::StatusOr<BrowserWindow>& window) mutable {
        if (!window.ok()) return reply(window.status());
        int64_t id = 0;
        find(window->target_id, id);
        if (id == 0) return reply(absl::UnavailableError("the browser was closed at once"));
        reply(id);
      };
  if (!incognito) return browser.OpenWindow(ContextOf(profile), options, on_window);
  browser.OpenIncognitoWindow(options, lifetime_.Guard([this](const std::string& context) {
    incognitos_.push_back({absl::StrCat(id(), "-incognito-", ++last_incognito_), context});
    host_.on_change();
  }),
                              on_window);
}

ProfileBrowser& LiveProfile::Browser(const UserAgent& user_agent) {
  if (browser_ != nullptr) return *browser_;
  ProfileBrowserOptions options;
  options.keeper = host_.keeper;
  options.keeper.process.launch.user_data_dir = stored_.user_data_dir;
  options.user_agent = user_agent;
  options.prepare = [store = host_.store, id = id()] { return store->PrepareStart(id); };
  Visitor& visitor = *this;
  browser_ = std::make_unique<ProfileBrowser>(
      host_.loop, host_.files, std::move(options), host_.asker,
      [this](const std::string& context) { return QuestionKeys(context); }, visitor);
  browser_->SetNetworkState(host_.is_online);
  return *browser_;
}

void LiveProfile::CloseBrowser(int64_t id, Reply<Done> reply) {
  const auto window = windows_.find(id);
  if (window == windows_.end()) {
    return reply(absl::NotFoundError(absl::StrCat("there is no browser ", id)));
  }
  const std::string target_id = window->second.target_id;
  browser_->CloseWindow(target_id, std::move(reply));
}

// The last window to go takes the profile with it.
void LiveProfile::CloseIncognito(const std::string& id, const Reply<Done>& reply) {
  const std::string context = ContextOf(id);
  std::vector<std::string> targets;
  for (const auto& [browser_id, window] : windows_) {
    if (window.context == context) targets.push_back(window.target_id);
  }
  if (targets.empty()) {
    return reply(absl::FailedPreconditionError(
        absl::StrCat("\"", id, "\" has no browser yet, and goes with its last one")));
  }
  // Answers when every window has, and with the first failure; a window that went by itself is
  // none.
  struct Closing {
    Reply<Done> reply;
    size_t open;
    absl::Status status;
  };
  auto closing = std::make_shared<Closing>(Closing{reply, targets.size(), absl::OkStatus()});
  for (const std::string& target_id : targets) {
    browser_->CloseWindow(target_id, [closing](const absl::StatusOr<Done>& done) {
      if (!absl::IsNotFound(done.status())) closing->status.Update(done.status());
      if (--closing->open == 0) closing->reply(DoneOr(closing->status));
    });
  }
}

void LiveProfile::SetAcceptLanguage(const std::string& list, Reply<Done> reply) {
  if (!is_running()) {
    return host_.files.Run([store = host_.store, id = id(),
                            list] { return DoneOr(store->SetAcceptLanguage(id, list)); },
                           std::move(reply));
  }
  auto remember = lifetime_.Guard(
      [this, list](Reply<Done> remembered) { Remember(list, std::move(remembered)); });
  browser_->SetAcceptLanguage(
      list, [remember, reply = std::move(reply)](const absl::StatusOr<Done>& done) mutable {
        if (!done.ok()) return reply(done);
        remember(reply);
      });
}

void LiveProfile::Remember(const std::string& list, Reply<Done> reply) {
  host_.files.Run(
      [store = host_.store, id = id(), list] {
        store->RememberAcceptLanguage(id, list);
        return Done();
      },
      std::move(reply));
  written_timer_.Start(kWritingTime, [this] {
    host_.files.Run(
        [store = host_.store, id = id()] {
          store->CheckRemembered(id);
          return true;
        },
        [](bool) {});
  });
}

void LiveProfile::GetAcceptLanguage(const std::string& profile, Reply<std::string> reply) {
  if (is_running()) return browser_->GetAcceptLanguage(ContextOf(profile), std::move(reply));
  host_.files.Run([store = host_.store, id = id()] { return store->GetAcceptLanguage(id); },
                  std::move(reply));
}

void LiveProfile::SetNetworkState(bool is_online) {
  if (browser_ != nullptr) browser_->SetNetworkState(is_online);
}

void LiveProfile::Close(std::function<void()> on_closed) {
  if (has_ended_) return on_closed();
  on_closed_.push_back(std::move(on_closed));
  if (std::exchange(is_closed_, true)) return;
  if (browser_ == nullptr) return OnClosed();
  browser_->Close(lifetime_.Guard([this] { OnClosed(); }));
}

void LiveProfile::OnClosed() {
  has_ended_ = true;
  const auto waiting = std::exchange(on_closed_, {});
  for (const auto& on_closed : waiting) on_closed();
}

void LiveProfile::Reopen() {
  browser_ = nullptr;
  is_closed_ = false;
  has_ended_ = false;
}

void LiveProfile::OnWindowOpened(const BrowserWindow& window) {
  windows_[++host_.last_browser_id] = window;
  host_.on_change();
}

void LiveProfile::OnWindowChanged(const BrowserWindow& window) {
  const auto known = windows_.find(IdOf(window.target_id));
  if (known == windows_.end()) return;
  known->second = window;
  host_.on_change();
}

void LiveProfile::OnWindowClosed(const BrowserWindow& window) {
  if (windows_.erase(IdOf(window.target_id)) != 0) host_.on_change();
}

void LiveProfile::OnContextClosed(const std::string& context) {
  const auto gone = std::remove_if(
      incognitos_.begin(), incognitos_.end(),
      [&context](const Incognito& incognito) { return incognito.context == context; });
  incognitos_.erase(gone, incognitos_.end());
  host_.on_change();
}

void LiveProfile::OnRunning(bool is_running) {
  if (!is_running) Settle();
  host_.on_change();
}

void LiveProfile::Settle() {
  written_timer_.Cancel();
  host_.files.Run([store = host_.store, id = id()] { return store->Settle(id); },
                  lifetime_.Guard([this](const absl::StatusOr<std::string>& name) {
                    if (!name.ok() || *name == stored_.name) return;
                    stored_.name = *name;
                    host_.on_change();
                  }));
}

int64_t LiveProfile::IdOf(const std::string& target_id) const {
  for (const auto& [id, window] : windows_) {
    if (window.target_id == target_id) return id;
  }
  return 0;
}

std::string LiveProfile::ContextOf(const std::string& profile) const {
  for (const Incognito& incognito : incognitos_) {
    if (incognito.id == profile) return incognito.context;
  }
  return "";
}

std::vector<ProfileId> LiveProfile::QuestionKeys(const std::string& context) const {
  std::vector<ProfileId> keys;
  for (const Incognito& incognito : incognitos_) {
    if (incognito.context == context) keys.push_back(AsId(incognito.id));
  }
  keys.push_back(AsId(id()));
  if (is_default()) keys.push_back(AsId(""));
  return keys;
}

}  // namespace varnic::host
