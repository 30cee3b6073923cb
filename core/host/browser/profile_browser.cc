#include "core/host/browser/profile_browser.h"

#include <unistd.h>

#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/host/browser/live_browser.h"

namespace varnic::host {
namespace {

BrowserKeeperOptions KeeperOptions(ProfileBrowserOptions options) {
  options.keeper.process.launch.user_agent = options.user_agent.text;
  options.keeper.prepare = std::move(options.prepare);
  return std::move(options.keeper);
}

absl::Status IsClosed() {
  return absl::UnavailableError("the host closes the profile's browser");
}

absl::Status IsNotRunning() {
  return absl::FailedPreconditionError("the profile's browser does not run");
}

absl::Status IsOfOtherMode(bool headless) {
  return absl::FailedPreconditionError(
      headless ? "the profile's browser runs with windows on the screen, and some are open: close "
                 "them first, or ask for one on the screen"
               : "the profile's browser runs headless, and has browsers open: close them first, or "
                 "ask for a headless one");
}

}  // namespace

ProfileBrowser::ProfileBrowser(net::EventLoop& loop, TaskThread& files,
                               ProfileBrowserOptions options, QuestionAsker& asker,
                               QuestionKeys question_keys, Visitor& visitor)
    : loop_(loop),
      files_(files),
      user_agent_(options.user_agent),
      asker_(asker),
      question_keys_(std::move(question_keys)),
      visitor_(visitor),
      keeper_(loop, files, KeeperOptions(std::move(options)), *this) {}

ProfileBrowser::~ProfileBrowser() {
  VARNIC_CHECK(loop_.IsLoopThread());
  is_closed_ = true;
  is_ready_ = false;
  if (live_ != nullptr) live_->FailAll(IsClosed());
  RunTasks(IsClosed());
  live_ = nullptr;
}

void ProfileBrowser::OpenWindow(const std::string& context, const WindowOptions& options,
                                Reply<BrowserWindow> reply) {
  WithWindows(options.headless, [this, context, options, reply = std::move(reply)](
                                    const absl::StatusOr<LiveBrowser*>& live) {
    auto finish = [this, reply](const absl::StatusOr<BrowserWindow>& window) {
      --opening_;
      reply(window);
    };
    if (!live.ok()) return finish(live.status());
    (*live)->opener().Open(context, options, std::move(finish));
  });
}

void ProfileBrowser::OpenIncognitoWindow(const WindowOptions& options,
                                         std::function<void(const std::string&)> on_context,
                                         Reply<BrowserWindow> reply) {
  WithWindows(options.headless,
              [this, options, on_context = std::move(on_context),
               reply = std::move(reply)](const absl::StatusOr<LiveBrowser*>& live) {
                auto finish = [this, reply](const absl::StatusOr<BrowserWindow>& window) {
                  --opening_;
                  reply(window);
                };
                if (!live.ok()) return finish(live.status());
                (*live)->opener().OpenIncognito(options, on_context, std::move(finish));
              });
}

void ProfileBrowser::CloseWindow(const std::string& target_id, Reply<Done> reply) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (is_closed_) return reply(IsClosed());
  if (live_ == nullptr) {
    return reply(absl::NotFoundError(absl::StrCat("there is no window \"", target_id, "\"")));
  }
  live_->opener().Close(target_id, std::move(reply));
}

bool ProfileBrowser::is_running() const {
  return keeper_.is_busy();
}

void ProfileBrowser::SetAcceptLanguage(const std::string& list, Reply<Done> reply) {
  if (!is_running()) return reply(IsNotRunning());
  WithBrowser([list, reply = std::move(reply)](const absl::StatusOr<LiveBrowser*>& live) {
    if (!live.ok()) return reply(live.status());
    (*live)->SetAcceptLanguage(list, reply);
  });
}

void ProfileBrowser::GetAcceptLanguage(const std::string& context, Reply<std::string> reply) {
  if (!is_running()) return reply(IsNotRunning());
  WithBrowser([context, reply = std::move(reply)](const absl::StatusOr<LiveBrowser*>& live) {
    if (!live.ok()) return reply(live.status());
    (*live)->GetAcceptLanguage(context, reply);
  });
}

void ProfileBrowser::SetNetworkState(bool online) {
  online_ = online;
  if (live_ != nullptr) live_->SetNetworkState(online);
}

void ProfileBrowser::Close(std::function<void()> on_closed) {
  VARNIC_CHECK(loop_.IsLoopThread());
  is_closed_ = true;
  is_ready_ = false;
  if (live_ != nullptr) live_->FailAll(IsClosed());
  RunTasks(IsClosed());
  keeper_.Close([this, on_closed = std::move(on_closed)] {
    NoteRunning();
    on_closed();
  });
}

void ProfileBrowser::WithWindows(bool headless, Task task) {
  VARNIC_CHECK(loop_.IsLoopThread());
  const absl::Status status = is_closed_ ? IsClosed() : TakeMode(headless);
  ++opening_;
  if (!status.ok()) return task(status);
  WithBrowser(std::move(task));
}

absl::Status ProfileBrowser::TakeMode(bool headless) {
  if (keeper_.launch().headless == headless) return absl::OkStatus();
  BrowserLaunch launch = keeper_.launch();
  launch.headless = headless;
  const absl::Status status = CheckLaunch(launch, ::geteuid());
  if (!status.ok()) return status;
  const size_t windows = live_ == nullptr ? 0 : live_->windows();
  if (is_running() && (windows > 0 || opening_ > 0)) return IsOfOtherMode(headless);
  keeper_.SetHeadless(headless);
  is_ready_ = false;
  keeper_.End();
  return absl::OkStatus();
}

void ProfileBrowser::WithBrowser(Task task) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (is_closed_) return task(IsClosed());
  if (is_ready()) return task(live_.get());
  tasks_.push_back(std::move(task));
  if (!is_getting_ && !keeper_.is_up()) GetBrowser();
}

void ProfileBrowser::GetBrowser() {
  is_getting_ = true;
  keeper_.Get(lifetime_.Guard([this](const absl::StatusOr<DevToolsPipe*>& devtools) {
    is_getting_ = false;
    if (!devtools.ok()) RunTasks(devtools.status());
    NoteRunning();
  }));
  NoteRunning();
}

void ProfileBrowser::OnBrowserUp(DevToolsPipe& devtools, const RunningBrowser&) {
  live_ =
      std::make_unique<LiveBrowser>(loop_, files_, devtools, user_agent_, keeper_.launch().headless,
                                    asker_, question_keys_, visitor_);
  live_->SetNetworkState(online_);
  live_->Start([this](const absl::Status& status) { OnReady(status); });
}

// It has not been ended meanwhile, or will be gone soon: then who waits gets the next one.
void ProfileBrowser::OnReady(const absl::Status& status) {
  if (!keeper_.is_up()) return;
  is_ready_ = status.ok();
  if (!is_ready_) keeper_.End();
  RunTasks(status);
}

void ProfileBrowser::RunTasks(const absl::Status& status) {
  std::deque<Task> tasks = std::exchange(tasks_, {});
  while (!tasks.empty()) {
    const Task task = std::move(tasks.front());
    tasks.pop_front();
    if (!status.ok()) {
      task(status);
    } else {
      WithBrowser(task);
    }
  }
}

void ProfileBrowser::OnBrowserGone(const absl::Status& why) {
  const absl::Status reason =
      absl::UnavailableError(why.ok() ? "the profile's browser has ended" : why.message());
  is_ready_ = false;
  live_->FailAll(reason);
  live_->CloseAll();
  live_ = nullptr;
  if (is_getting_) return;  // Who waits gets the next one.
  RunTasks(reason);
  NoteRunning();
}

void ProfileBrowser::NoteRunning() {
  const bool now = live_ != nullptr || is_running();
  if (std::exchange(was_running_, now) != now) visitor_.OnRunning(now);
}

}  // namespace varnic::host
