#ifndef CORE_HOST_BROWSER_SETTINGS_PAGE_H_
#define CORE_HOST_BROWSER_SETTINGS_PAGE_H_

#include <deque>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/host/browser/browser_windows.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/profiles.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

// Reads and changes the settings of a browser's profile while it runs, by way of the browser's own
// page for that, for there is no other. The page is opened when it is needed, which takes a tenth
// of a second, and closed when nobody waits for it: it costs about 50 MiB. One question at a time.
//
// Lives on the loop's thread; all that it is given outlives it. Replies run from the loop, or in
// FailAll().
class SettingsPage {
 public:
  SettingsPage(net::EventLoop& loop, DevToolsPipe& devtools, BrowserWindows& windows,
               bool is_headless);
  SettingsPage(const SettingsPage&) = delete;
  SettingsPage& operator=(const SettingsPage&) = delete;

  // Each ends within kTimeLimit, with DEADLINE_EXCEEDED if the page does not come to answer.
  // Settings that hold a text. FAILED_PRECONDITION if the browser refuses.
  void Get(const std::string& name, Reply<std::string> reply);
  void Set(const std::string& name, const std::string& value, Reply<Done> reply);

  void OnAttached(const TargetSession& session);
  void OnDetached(const TargetSession& session);
  // Ends what is open; unless this is called, it is dropped with the page.
  void FailAll(const absl::Status& why);

  static constexpr absl::Duration kTimeLimit = absl::Seconds(10);
  static constexpr absl::Duration kRetryDelay = absl::Milliseconds(20);

 private:
  // What the page answers, or why it does not.
  using OnValue = std::function<void(absl::StatusOr<nlohmann::json>)>;
  struct Job {
    int number;
    std::string script;                // Of a promise.
    nlohmann::json::value_t expected;  // Anything else is not the page's answer.
    OnValue on_value;
    std::unique_ptr<net::Timer> deadline;
  };

  void Add(std::string script, nlohmann::json::value_t expected, OnValue on_value);
  // Takes the next step for the first job, unless one is being taken.
  void Go();
  void Open();
  void OnCreated(const absl::StatusOr<nlohmann::json>& answer);
  void Ask();
  void OnAnswer(int number, const absl::StatusOr<nlohmann::json>& answer);
  void RetryLater();
  void Finish(int number, absl::StatusOr<nlohmann::json> value);
  void CloseIfIdle();

  net::EventLoop& loop_;
  DevToolsPipe& devtools_;
  BrowserWindows& windows_;
  const bool is_headless_;
  int last_number_ = 0;
  std::deque<Job> jobs_;
  bool is_busy_ = false;   // A step is being taken.
  std::string target_id_;  // Of the page; empty: none.
  std::string session_id_;
  net::Timer retry_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_SETTINGS_PAGE_H_
