#include "core/host/browser/browser_keeper.h"

#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/host/browser/singleton_files.h"

namespace varnic::host {
namespace {

absl::StatusOr<std::shared_ptr<TemporaryDir>> PrepareFiles(
    const std::string& user_data_dir, const std::function<absl::Status()>& prepare) {
  absl::Status status = ClearStaleSingletonFiles(user_data_dir);
  if (status.ok() && prepare != nullptr) status = prepare();
  if (!status.ok()) return status;
  return TemporaryDir::Make();
}

absl::Status IsClosed() {
  return absl::UnavailableError("the host ends, and starts no browser any more");
}

}  // namespace

BrowserKeeper::BrowserKeeper(net::EventLoop& loop, TaskThread& files, BrowserKeeperOptions options,
                             Visitor& visitor)
    : loop_(loop),
      files_(files),
      options_(std::move(options)),
      visitor_(visitor),
      pacer_(options_.pacing) {}

BrowserKeeper::~BrowserKeeper() {
  VARNIC_CHECK(loop_.IsLoopThread());
  is_closed_ = true;
  is_up_ = false;  // Whose command ends now may ask.
  process_ = nullptr;
  RemoveTemporaryDir();
  AnswerAll(IsClosed());
}

void BrowserKeeper::Get(OnReady on_ready) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (is_closed_) return on_ready(IsClosed());
  if (is_up()) return on_ready(&process_->devtools());
  const bool is_starting = is_preparing_ || process_ != nullptr;
  const absl::Duration wait = pacer_.UntilNext();
  if (!is_starting && wait > absl::ZeroDuration()) {
    return on_ready(absl::Status(
        last_failure_.code(),
        absl::StrCat(last_failure_.message(), " (the next start can be in ",
                     absl::FormatDuration(absl::Ceil(wait, absl::Milliseconds(100))), ")")));
  }
  waiting_.push_back(std::move(on_ready));
  if (!is_starting) Prepare();
}

void BrowserKeeper::Prepare() {
  is_preparing_ = true;
  pacer_.OnStart();
  files_.Run([directory = options_.process.launch.user_data_dir,
              prepare = options_.prepare] { return PrepareFiles(directory, prepare); },
             lifetime_.Guard([this](const Prepared& prepared) {
               is_preparing_ = false;
               Start(prepared);
             }));
}

void BrowserKeeper::Start(const Prepared& prepared) {
  if (prepared.ok()) temporary_dir_ = *prepared;
  if (is_closed_) {
    RemoveTemporaryDir();
    return MaybeFinishClose();
  }
  if (!prepared.ok()) return OnStartFailed(prepared.status());
  BrowserProcessOptions options = options_.process;
  options.launch.temporary_dir = temporary_dir_->path();
  auto process = BrowserProcess::Start(loop_, std::move(options), *this);
  if (!process.ok()) return OnStartFailed(process.status());
  process_ = *std::move(process);
}

void BrowserKeeper::OnStartFailed(const absl::Status& why) {
  RemoveTemporaryDir();
  NoteFailure(why);
  AnswerAll(why);
}

void BrowserKeeper::OnBrowserUp(const RunningBrowser& browser) {
  is_up_ = true;
  pacer_.OnUp();
  auto hand_out = lifetime_.Guard([this] { HandOut(); });
  visitor_.OnBrowserUp(process_->devtools(), browser);
  hand_out();
}

// One at a time: each who gets the browser may end it, or destroy this.
void BrowserKeeper::HandOut() {
  bool goes_on = false;
  auto check = lifetime_.Guard([this, &goes_on] { goes_on = is_up() && !waiting_.empty(); });
  check();
  while (goes_on) {
    const OnReady on_ready = std::move(waiting_.front());
    waiting_.pop_front();
    on_ready(&process_->devtools());
    goes_on = false;
    check();
  }
}

void BrowserKeeper::OnBrowserEnded(const absl::Status& why) {
  const bool was_up = std::exchange(is_up_, false);
  const bool was_ended = std::exchange(is_ending_, false) && why.ok();
  // Goes when nobody can call into it any more.
  const std::unique_ptr<BrowserProcess> process = std::move(process_);
  const absl::Status reason = why;
  RemoveTemporaryDir();
  if (reason.ok()) {
    pacer_.OnEnd();
  } else {
    NoteFailure(reason);
  }
  // Who waits after it was up, or was ended, has asked for the next one.
  auto settle = lifetime_.Guard([&] { Settle(reason, was_up || was_ended); });
  if (was_up) visitor_.OnBrowserGone(reason);
  settle();
}

void BrowserKeeper::NoteFailure(const absl::Status& why) {
  pacer_.OnFailure();
  last_failure_ = why;
}

void BrowserKeeper::Settle(const absl::Status& why, bool want_next) {
  if (is_preparing_) return;  // The visitor has asked for the next one.
  const bool may_start = !is_closed_ && pacer_.UntilNext() == absl::ZeroDuration();
  if (want_next && may_start && !waiting_.empty()) return Prepare();
  auto finish = lifetime_.Guard([this] { MaybeFinishClose(); });
  AnswerAll(why.ok() ? absl::UnavailableError("the browser has ended") : why);
  finish();
}

void BrowserKeeper::AnswerAll(const absl::Status& why) {
  const std::deque<OnReady> waiting = std::exchange(waiting_, {});
  for (const OnReady& on_ready : waiting) on_ready(why);
}

void BrowserKeeper::RemoveTemporaryDir() {
  if (temporary_dir_ == nullptr) return;
  files_.Run(
      [folder = std::move(temporary_dir_)]() mutable {
        folder = nullptr;
        return true;
      },
      [](bool) {});
}

void BrowserKeeper::End() {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (process_ == nullptr) return;
  is_ending_ = true;
  process_->Close();
}

void BrowserKeeper::Close(std::function<void()> on_closed) {
  VARNIC_CHECK(loop_.IsLoopThread());
  is_closed_ = true;
  on_closed_ = std::move(on_closed);
  if (process_ != nullptr) process_->Close();
  auto finish = lifetime_.Guard([this] { MaybeFinishClose(); });
  AnswerAll(IsClosed());
  finish();
}

void BrowserKeeper::MaybeFinishClose() {
  if (on_closed_ == nullptr || is_preparing_ || process_ != nullptr) return;
  const std::function<void()> on_closed = std::exchange(on_closed_, nullptr);
  on_closed();
}

}  // namespace varnic::host
