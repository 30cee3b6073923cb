#ifndef CORE_HOST_BROWSER_BROWSER_KEEPER_H_
#define CORE_HOST_BROWSER_BROWSER_KEEPER_H_

#include <deque>
#include <functional>
#include <memory>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/browser/browser_process.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/start_pacer.h"
#include "core/host/browser/temporary_dir.h"
#include "core/host/task_thread.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"

namespace varnic::host {

struct BrowserKeeperOptions {
  // launch.temporary_dir is not used: each browser gets a new one, which is removed after it.
  BrowserProcessOptions process;
  StartPacing pacing;
  // Runs on the files thread before each start, once it is known that no other browser has the
  // directory. An error is the start's. May be null.
  std::function<absl::Status()> prepare;
};

// The browser of one user-data directory: started when somebody needs it, and again after it has
// crashed when somebody needs it then.
//
// Lives on the loop's thread; see BrowserProcess. The loop, `files` and the visitor outlive it.
// Destroying it kills a browser that runs: call Close() before, and wait.
class BrowserKeeper : private BrowserProcess::Visitor {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // Before anybody who waits for the browser gets it. The pipe stays until OnBrowserGone().
    virtual void OnBrowserUp(DevToolsPipe& devtools, const RunningBrowser& browser) = 0;
    // Once for each OnBrowserUp(), unless the keeper is destroyed before. The pipe is closed and
    // must not be used any more.
    virtual void OnBrowserGone(const absl::Status& why) = 0;
  };
  using OnReady = std::function<void(absl::StatusOr<DevToolsPipe*>)>;

  // `files` runs what blocks, and posts back to the loop.
  BrowserKeeper(net::EventLoop& loop, TaskThread& files, BrowserKeeperOptions options,
                Visitor& visitor);
  BrowserKeeper(const BrowserKeeper&) = delete;
  BrowserKeeper& operator=(const BrowserKeeper&) = delete;
  ~BrowserKeeper() override;

  // Calls `on_ready` once: now, if the browser is up or must not be started yet, and otherwise
  // when it is up or has failed. Who asks while one is ending gets the next one. The pipe stays
  // until OnBrowserGone() of the visitor. A failure is that of BrowserProcess, of
  // ClearStaleSingletonFiles(), or UNAVAILABLE after Close() and when the keeper is destroyed.
  // While a start has to wait, it is the last failure, with a text that says how long.
  void Get(OnReady on_ready);

  // How browsers are started from now on; no change for one that has been started. A browser may
  // have been only prepared yet.
  void SetHeadless(bool headless) { options_.process.launch.headless = headless; }

  // Ends the browser in order, if there is one. Who waits for it, or asks from now on, gets the
  // next one.
  void End();

  // Ends the browser in order, if there is one, and starts no other. `on_closed` runs once, maybe
  // at once. Once only.
  void Close(std::function<void()> on_closed);

  bool is_up() const { return is_up_ && !is_ending_ && process_->devtools().is_open(); }
  // Whether a browser is prepared, starts, runs or ends.
  bool is_busy() const { return is_preparing_ || process_ != nullptr; }
  const BrowserLaunch& launch() const { return options_.process.launch; }

 private:
  using Prepared = absl::StatusOr<std::shared_ptr<TemporaryDir>>;

  // BrowserProcess::Visitor:
  void OnBrowserUp(const RunningBrowser& browser) override;
  void OnBrowserEnded(const absl::Status& why) override;

  void Prepare();
  void Start(const Prepared& prepared);
  void OnStartFailed(const absl::Status& why);
  void HandOut();
  void NoteFailure(const absl::Status& why);
  void Settle(const absl::Status& why, bool want_next);
  void AnswerAll(const absl::Status& why);
  void RemoveTemporaryDir();
  void MaybeFinishClose();

  net::EventLoop& loop_;
  TaskThread& files_;
  BrowserKeeperOptions options_;
  Visitor& visitor_;
  std::deque<OnReady> waiting_;
  std::function<void()> on_closed_;
  bool is_closed_ = false;
  bool is_preparing_ = false;
  bool is_up_ = false;  // As far as the visitor knows.
  bool is_ending_ = false;
  absl::Status last_failure_;
  StartPacer pacer_;
  std::shared_ptr<TemporaryDir> temporary_dir_;
  std::unique_ptr<BrowserProcess> process_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_BROWSER_KEEPER_H_
