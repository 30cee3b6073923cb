#ifndef CORE_HOST_BROWSER_PROFILE_BROWSER_H_
#define CORE_HOST_BROWSER_PROFILE_BROWSER_H_

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "core/host/browser/browser_keeper.h"
#include "core/host/browser/browser_window.h"
#include "core/host/profiles.h"
#include "core/host/task_thread.h"
#include "core/host/user_agent.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "rpc/identifiers.pb.h"

namespace varnic::host {

class LiveBrowser;
class QuestionAsker;

struct ProfileBrowserOptions {
  // keeper.process.launch.headless is what it starts as before the first window is asked for;
  // launch.user_agent is not used.
  BrowserKeeperOptions keeper;
  UserAgent user_agent;  // What its pages see.
  // Runs on the files thread before each start (seeds Preferences). An error is the start's. May be
  // null.
  std::function<absl::Status()> prepare;
};

// One persistent profile's live browser: its windows, its incognito contexts, and those of its
// settings that a running browser must be asked for. The browser is started for the first window,
// stays when the last one is closed, and is started again for the next window after it has died.
//
// It runs either with windows on a screen or headless. Asked for the other mode, it is started anew
// if it has no window, and refuses otherwise.
//
// Pages never see it wait for a person who is not there: headless, their dialogs are dismissed
// (leaving a page is allowed), downloads are denied, and a window whose page has crashed is closed.
// With windows, all this is left to who sits before them.
//
// Lives on the loop's thread. The loop, `files`, the asker and the visitor outlive it; neither the
// visitor nor a reply may destroy it, but on_closed of Close() may. Everything else may be called
// from inside them. Destroying it kills a browser that runs, and fails what is open.
class ProfileBrowser : private BrowserKeeper::Visitor {
 public:
  class Visitor : public WindowVisitor {
   public:
    // is_running() has changed. Windows and contexts are closed one by one before false.
    virtual void OnRunning(bool is_running) = 0;
  };
  // The keys under which somebody may answer what a page in `context` asks, first come first.
  using QuestionKeys = std::function<std::vector<ProfileId>(const std::string& context)>;
  using WindowOptions = host::WindowOptions;

  ProfileBrowser(net::EventLoop& loop, TaskThread& files, ProfileBrowserOptions options,
                 QuestionAsker& asker, QuestionKeys question_keys, Visitor& visitor);
  ProfileBrowser(const ProfileBrowser&) = delete;
  ProfileBrowser& operator=(const ProfileBrowser&) = delete;
  ~ProfileBrowser() override;

  // Opens a window of the profile itself, or of the incognito context `context`. Answers when it
  // exists and its page has been told where to go, not when that has loaded: a page that cannot be
  // loaded is no failure. OnWindowOpened comes first. Fails with
  //   FAILED_PRECONDITION  the browser runs in the other mode and has windows, or cannot start
  //   INVALID_ARGUMENT     the browser knows no such address
  //   NOT_FOUND            no such context
  //   UNAVAILABLE          the browser has died, or Close() was called
  //   DEADLINE_EXCEEDED    the browser does not answer
  void OpenWindow(const std::string& context, const WindowOptions& options,
                  Reply<BrowserWindow> reply);

  // The same in a new incognito context, which is gone with its last window (OnContextClosed).
  // `on_context` hears of it before its window opens and its first request is made.
  void OpenIncognitoWindow(const WindowOptions& options,
                           std::function<void(const std::string& context)> on_context,
                           Reply<BrowserWindow> reply);

  // Closes a window without asking its page. Answers after OnWindowClosed. NOT_FOUND if there is no
  // such window, UNAVAILABLE as above.
  void CloseWindow(const std::string& target_id, Reply<Done> reply);

  // Whether the profile's files are a browser's: it runs, starts or ends.
  bool is_running() const;

  // Changes the languages that the profile's pages and requests tell, from now on and for good; the
  // browser writes them to its files some seconds later. `list` is as NormalizeAcceptLanguage()
  // leaves it. Waits for a browser that starts. FAILED_PRECONDITION if none runs.
  void SetAcceptLanguage(const std::string& list, Reply<Done> reply);
  // What they tell: of the profile itself as it was set, of an incognito context as its pages see
  // it, for the browser adds to it there. FAILED_PRECONDITION if no browser runs, NOT_FOUND if
  // there is no such context.
  void GetAcceptLanguage(const std::string& context, Reply<std::string> reply);

  // What navigator.onLine says in its pages and workers, now and later; true before the first call.
  void SetNetworkState(bool online);

  // Ends the browser in order. A later call does not start one. `on_closed` runs once, maybe at
  // once, after every open reply. Once only.
  void Close(std::function<void()> on_closed);

 private:
  // Takes the browser, or why there is none.
  using Task = std::function<void(absl::StatusOr<LiveBrowser*>)>;

  // BrowserKeeper::Visitor:
  void OnBrowserUp(DevToolsPipe& devtools, const RunningBrowser& browser) override;
  void OnBrowserGone(const absl::Status& why) override;

  // Runs `task` once, when the browser is ready.
  void WithBrowser(Task task);
  // The same for a window, in the mode that it needs.
  void WithWindows(bool headless, Task task);
  absl::Status TakeMode(bool headless);
  void GetBrowser();
  void OnReady(const absl::Status& status);
  void RunTasks(const absl::Status& status);
  bool is_ready() const { return is_ready_ && keeper_.is_up(); }
  // Tells the visitor if is_running() has changed.
  void NoteRunning();

  net::EventLoop& loop_;
  TaskThread& files_;
  const UserAgent user_agent_;
  QuestionAsker& asker_;
  const QuestionKeys question_keys_;
  Visitor& visitor_;
  bool online_ = true;
  bool is_closed_ = false;
  bool was_running_ = false;  // As the visitor knows.
  bool is_getting_ = false;   // The keeper has been asked for a browser.
  bool is_ready_ = false;     // live_ has been prepared.
  int opening_ = 0;           // Windows that are asked for.
  std::deque<Task> tasks_;
  BrowserKeeper keeper_;
  std::unique_ptr<LiveBrowser> live_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_PROFILE_BROWSER_H_
