#ifndef CORE_HOST_BROWSER_BROWSER_PROCESS_H_
#define CORE_HOST_BROWSER_BROWSER_PROCESS_H_

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/host/browser/browser_command_line.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/output_log.h"
#include "core/host/file_descriptor.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "core/net/readable_watch.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

struct BrowserProcessOptions {
  BrowserLaunch launch;
  DevToolsLimits limits;
  // Older ones are refused. Since 132 a headless Chromium always has profiles and settings.
  int oldest_major_version = 132;
  // How long it may take to come up.
  absl::Duration start_time = absl::Seconds(30);
  // While it is up, it is asked for a sign of life: this long after the last one, and it is ended
  // if none comes in time.
  absl::Duration ping_period = absl::Seconds(10);
  absl::Duration ping_time = absl::Seconds(30);
  // How long it may take to end when it is asked to, and then after SIGTERM, before SIGKILL.
  absl::Duration close_time = absl::Seconds(5);
  absl::Duration terminate_time = absl::Seconds(5);
  // How long the processes that it started may outlive it, to save what they have.
  absl::Duration leftover_time = absl::Seconds(2);
};

// What a browser says that it is.
struct RunningBrowser {
  std::string product;  // "Chrome/156.0.8078.79".
  std::string user_agent;
};

// One run of Chromium on a user-data directory, from its start to the end of the last of its
// processes. It is up once it has answered Browser.getVersion. It ends with this process: its pipe
// ends then, and it gets SIGTERM.
//
// Lives on the loop's thread, which must be the one that starts it and stays until it has ended,
// for the kernel takes the end of that thread for the end of this process. The loop outlives it.
class BrowserProcess {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // Once, unless it ends before. Commands may be sent from here on.
    virtual void OnBrowserUp(const RunningBrowser& browser) = 0;
    // Once, and last: the browser and its processes are gone, and open commands have ended. OK if
    // Close() had been called. Otherwise UNAVAILABLE, for what may work the next time, or
    // FAILED_PRECONDITION, for what will not, with a text that says what to do: the browser is too
    // old, has no sandbox, or the directory is in use. May destroy the process object.
    virtual void OnBrowserEnded(const absl::Status& why) = 0;
  };

  // Starts the program; some milliseconds pass. An error if it cannot be started, with a text that
  // says what to do. `visitor` outlives the result, and is called from the loop.
  static absl::StatusOr<std::unique_ptr<BrowserProcess>> Start(net::EventLoop& loop,
                                                               BrowserProcessOptions options,
                                                               Visitor& visitor);
  BrowserProcess(const BrowserProcess&) = delete;
  BrowserProcess& operator=(const BrowserProcess&) = delete;
  // Kills what is left, which may lose what the browser has not saved: call Close() before, and
  // wait for OnBrowserEnded().
  ~BrowserProcess();

  // Asks the browser to end, tells it to after `close_time`, and kills it after `terminate_time`.
  void Close();

  DevToolsPipe& devtools() { return *devtools_; }
  pid_t pid() const { return pid_; }

 private:
  // Each step is taken once, in this order; some may be left out.
  enum class Step { kStarting, kUp, kClosing, kTerminating, kKilling, kLeftovers, kGone };

  BrowserProcess(net::EventLoop& loop, BrowserProcessOptions options, Visitor& visitor);

  absl::Status Spawn();
  void OnVersion(const absl::StatusOr<nlohmann::json>& answer);
  absl::Status CheckVersion(const std::string& product) const;
  void AwaitPing();
  void Ping();
  void OnPipeClosed();
  void ExpectEnd();
  // Ends a browser that cannot be used.
  void Fail(const absl::Status& why);
  void Terminate();
  void Kill();
  void OnExit();
  void OnOutputEnd();
  // Ends its processes and collects it.
  int KillAndReap();
  void Finish();
  absl::Status WhyEnded(int wait_status) const;
  void LogEnd(const absl::Status& why) const;

  net::EventLoop& loop_;
  const BrowserProcessOptions options_;
  Visitor& visitor_;
  const std::string program_;
  Step step_ = Step::kStarting;
  bool was_up_ = false;
  bool was_asked_to_end_ = false;
  absl::Status failure_;  // Why we end it, if we do.
  pid_t pid_ = 0;         // 0 once waited for.
  FileDescriptor exit_;
  net::Timer timer_;  // Of the step.
  std::unique_ptr<OutputLog> output_;
  std::unique_ptr<DevToolsPipe> devtools_;
  std::unique_ptr<net::ReadableWatch> exit_watch_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_BROWSER_PROCESS_H_
