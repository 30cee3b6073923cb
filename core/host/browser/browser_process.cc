#include "core/host/browser/browser_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "base/logging.h"
#include "core/common/rpc/fatal.h"
#include "core/host/browser/json_field.h"
#include "core/host/browser/pipe_stream.h"
#include "core/host/browser/spawned_browser.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

// What Chromium exits with when another one has the directory.
constexpr int kProfileInUseExitCode = 21;

absl::Status CannotStart(const absl::Status& why) {
  absl::string_view advice;
  if (absl::IsNotFound(why)) {
    advice = "; install Chromium (Debian's package \"chromium\"), or name the browser's program";
  } else if (absl::IsPermissionDenied(why)) {
    advice = "; it has to be a program that the host's user may run";
  } else {
    return absl::UnavailableError(why.message());
  }
  return absl::FailedPreconditionError(absl::StrCat(why.message(), advice));
}

// 156 of "Chrome/156.0.8078.79"; 0 of anything else.
int MajorVersion(absl::string_view product) {
  const size_t slash = product.find('/');
  if (slash == absl::string_view::npos) return 0;
  const absl::string_view version = product.substr(slash + 1);
  int major = 0;
  return absl::SimpleAtoi(version.substr(0, version.find('.')), &major) ? major : 0;
}

std::string DescribeExit(int wait_status) {
  if (WIFSIGNALED(wait_status)) {
    return absl::StrCat("was ended by signal ", WTERMSIG(wait_status));
  }
  return absl::StrCat("ended with exit code ", WEXITSTATUS(wait_status));
}

}  // namespace

BrowserProcess::BrowserProcess(net::EventLoop& loop, BrowserProcessOptions options,
                               Visitor& visitor)
    : loop_(loop),
      options_(std::move(options)),
      visitor_(visitor),
      program_(BrowserArguments(options_.launch).front()),
      timer_(loop) {}

BrowserProcess::~BrowserProcess() {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (pid_ != 0) KillAndReap();
}

absl::StatusOr<std::unique_ptr<BrowserProcess>> BrowserProcess::Start(net::EventLoop& loop,
                                                                      BrowserProcessOptions options,
                                                                      Visitor& visitor) {
  VARNIC_CHECK(loop.IsLoopThread());
  absl::Status status = CheckLaunch(options.launch, ::geteuid());
  if (!status.ok()) return status;
  std::unique_ptr<BrowserProcess> process(new BrowserProcess(loop, std::move(options), visitor));
  status = process->Spawn();
  if (!status.ok()) return CannotStart(status);
  return process;
}

absl::Status BrowserProcess::Spawn() {
  absl::StatusOr<SpawnedBrowser> browser =
      SpawnBrowser(BrowserArguments(options_.launch), BrowserEnvironment(options_.launch, environ));
  if (!browser.ok()) return browser.status();
  pid_ = browser->pid;
  exit_ = std::move(browser->exit);
  auto watch = net::ReadableWatch::Start(loop_, exit_.get(), [this] { OnExit(); });
  if (!watch.ok()) return watch.status();
  exit_watch_ = *std::move(watch);
  output_ = std::make_unique<OutputLog>(loop_, std::move(browser->output), pid_,
                                        [this] { OnOutputEnd(); });
  devtools_ = std::make_unique<DevToolsPipe>(
      loop_,
      std::make_unique<PipeStream>(loop_, std::move(browser->from_browser),
                                   std::move(browser->to_browser)),
      [this](const absl::Status&) { OnPipeClosed(); }, options_.limits);
  devtools_->Call(
      {"Browser.getVersion", nlohmann::json::object(), "", options_.start_time},
      lifetime_.Guard([this](const absl::StatusOr<nlohmann::json>& answer) { OnVersion(answer); }));
  return absl::OkStatus();
}

void BrowserProcess::OnVersion(const absl::StatusOr<nlohmann::json>& answer) {
  if (step_ != Step::kStarting) return;
  if (absl::IsUnavailable(answer.status())) return;  // It ends, and will tell why.
  if (absl::IsDeadlineExceeded(answer.status())) {
    return Fail(absl::UnavailableError(absl::StrCat("the browser \"", program_,
                                                    "\" did not come up within ",
                                                    absl::FormatDuration(options_.start_time))));
  }
  if (!answer.ok()) {
    return Fail(absl::FailedPreconditionError(absl::StrCat(
        "the browser \"", program_, "\" does not tell its version: ", answer.status().message())));
  }
  const RunningBrowser browser{TextAt(*answer, "product"), TextAt(*answer, "userAgent")};
  if (const absl::Status status = CheckVersion(browser.product); !status.ok()) return Fail(status);
  step_ = Step::kUp;
  was_up_ = true;
  if (logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
        << "A browser is up" << net::LogField("product", browser.product)
        << net::LogField("pid", std::to_string(pid_))
        << net::LogField("directory", options_.launch.user_data_dir);
  }
  AwaitPing();
  visitor_.OnBrowserUp(browser);
}

void BrowserProcess::AwaitPing() {
  timer_.Start(options_.ping_period, [this] { Ping(); });
}

// One that has stopped, or hangs, would keep its profile for ever.
void BrowserProcess::Ping() {
  devtools_->Call({"Browser.getVersion", nlohmann::json::object(), "", options_.ping_time},
                  lifetime_.Guard([this](const absl::StatusOr<nlohmann::json>& answer) {
                    if (step_ != Step::kUp) return;
                    if (!absl::IsDeadlineExceeded(answer.status())) return AwaitPing();
                    Fail(absl::UnavailableError(
                        absl::StrCat("the browser \"", program_, "\" did not answer for ",
                                     absl::FormatDuration(options_.ping_time))));
                  }));
}

absl::Status BrowserProcess::CheckVersion(const std::string& product) const {
  if (MajorVersion(product) >= options_.oldest_major_version) return absl::OkStatus();
  return absl::FailedPreconditionError(
      absl::StrCat("the browser \"", program_, "\" calls itself \"", product.substr(0, 100),
                   "\", and version ", options_.oldest_major_version,
                   " of Chromium or a later one is needed: update it, or name another program"));
}

void BrowserProcess::OnPipeClosed() {
  // One that has crashed, or ends by itself, will be heard of soon, and is not to be disturbed. One
  // that lives on without its pipe is of no use.
  if (step_ < Step::kClosing) ExpectEnd();
}

void BrowserProcess::ExpectEnd() {
  step_ = Step::kClosing;
  timer_.Start(options_.close_time, [this] { Terminate(); });
}

void BrowserProcess::Fail(const absl::Status& why) {
  failure_ = why;
  Terminate();
}

void BrowserProcess::Close() {
  VARNIC_CHECK(loop_.IsLoopThread());
  was_asked_to_end_ = true;
  if (step_ == Step::kStarting) return Terminate();
  if (step_ != Step::kUp) return;
  ExpectEnd();
  // How it ends is seen at its exit.
  devtools_->Call({"Browser.close"}, [](const absl::StatusOr<nlohmann::json>&) {});
}

void BrowserProcess::Terminate() {
  if (step_ >= Step::kTerminating) return;
  step_ = Step::kTerminating;
  ::kill(pid_, SIGTERM);
  timer_.Start(options_.terminate_time, [this] { Kill(); });
}

void BrowserProcess::Kill() {
  step_ = Step::kKilling;
  ::kill(-pid_, SIGKILL);
}

void BrowserProcess::OnExit() {
  exit_watch_ = nullptr;
  step_ = Step::kLeftovers;
  // It is not waited for yet: as long as it is a zombie, nobody else can get its process group.
  output_->ReadAvailable();
  if (output_->has_ended()) return Finish();
  timer_.Start(options_.leftover_time, [this] { Finish(); });
}

void BrowserProcess::OnOutputEnd() {
  // All its processes have inherited the pipe.
  if (step_ == Step::kLeftovers) Finish();
}

int BrowserProcess::KillAndReap() {
  ::kill(-pid_, SIGKILL);
  int wait_status = 0;
  while (::waitpid(pid_, &wait_status, 0) < 0 && errno == EINTR) continue;
  pid_ = 0;
  return wait_status;
}

void BrowserProcess::Finish() {
  timer_.Cancel();
  output_->ReadAvailable();
  const absl::Status why = WhyEnded(KillAndReap());
  step_ = Step::kGone;
  LogEnd(why);
  auto tell = lifetime_.Guard([this, why] { visitor_.OnBrowserEnded(why); });
  devtools_->Close(absl::UnavailableError(why.ok() ? "the browser has ended" : why.message()));
  tell();
}

absl::Status BrowserProcess::WhyEnded(int wait_status) const {
  if (was_asked_to_end_) return absl::OkStatus();
  if (!failure_.ok()) return failure_;
  const std::string ended =
      absl::StrCat("the browser \"", program_, "\" ", DescribeExit(wait_status));
  if (WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == kProfileInUseExitCode) {
    return absl::FailedPreconditionError(absl::StrCat(
        ended, ": another browser uses \"", options_.launch.user_data_dir, "\"; close that one"));
  }
  if (!was_up_ && output_->Says("No usable sandbox")) {
    return absl::FailedPreconditionError(absl::StrCat(
        ended,
        ": it finds no sandbox; allow unprivileged user namespaces (sysctl "
        "kernel.unprivileged_userns_clone, kernel.apparmor_restrict_unprivileged_userns), "
        "or install Debian's package \"chromium-sandbox\""));
  }
  return absl::UnavailableError(was_up_ ? ended : absl::StrCat(ended, " before it was up"));
}

void BrowserProcess::LogEnd(const absl::Status& why) const {
  const int severity = why.ok() ? logging::LOGGING_INFO : logging::LOGGING_WARNING;
  if (!logging::ShouldCreateLogMessage(severity)) return;
  logging::LogMessage record(__FILE__, __LINE__, severity);
  record.stream() << "A browser has ended"
                  << net::LogField("directory", options_.launch.user_data_dir);
  if (why.ok()) return;
  record.stream() << net::LogField("reason", std::string(why.message()));
  if (output_->last_lines().empty()) return;
  record.stream() << net::LogField("last_line", output_->last_lines().back());
}

}  // namespace varnic::host
