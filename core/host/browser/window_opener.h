#ifndef CORE_HOST_BROWSER_WINDOW_OPENER_H_
#define CORE_HOST_BROWSER_WINDOW_OPENER_H_

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/host/browser/browser_windows.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/incognito_contexts.h"
#include "core/host/profiles.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"

namespace varnic::host {

// Opens and closes the windows of one browser. A window starts blank, and is sent to its page once
// its session is there: what it asks for first is asked with all its settings.
//
// Lives on the loop's thread; all that it is given outlives it. Replies run from the loop, or in
// FailAll().
class WindowOpener {
 public:
  using OnContext = std::function<void(const std::string& context)>;

  WindowOpener(net::EventLoop& loop, DevToolsPipe& devtools, BrowserWindows& windows,
               IncognitoContexts& contexts);
  WindowOpener(const WindowOpener&) = delete;
  WindowOpener& operator=(const WindowOpener&) = delete;

  // See ProfileBrowser.
  void Open(const std::string& context, const WindowOptions& options, Reply<BrowserWindow> reply);
  void OpenIncognito(const WindowOptions& options, OnContext on_context,
                     Reply<BrowserWindow> reply);
  void Close(const std::string& target_id, Reply<Done> reply);

  void OnAttached(const TargetSession& session);
  // After BrowserWindows has been told.
  void OnDetached(const TargetSession& session);
  // Ends what is open; unless this is called, it is dropped with the opener.
  void FailAll(const absl::Status& why);

  // How long each call may take.
  static constexpr absl::Duration kTimeLimit = absl::Seconds(30);

 private:
  struct Opening {
    std::string context;
    WindowOptions options;
    Reply<BrowserWindow> reply;
    std::unique_ptr<net::Timer> deadline;
    std::string target_id;  // Empty until it is known.
    absl::Status refusal;   // Of its address.
    bool is_sent = false;
  };
  struct Closing {
    std::string target_id;
    Reply<Done> reply;
    std::unique_ptr<net::Timer> deadline;
  };

  int Add(const WindowOptions& options, Reply<BrowserWindow> reply);
  std::unique_ptr<net::Timer> Deadline(std::function<void(const absl::Status&)> on_late);
  void OnContextMade(int number, const OnContext& on_context,
                     const absl::StatusOr<std::string>& context);
  void Create(int number);
  void OnCreated(int number, const absl::StatusOr<nlohmann::json>& answer);
  void MaybeSend(int number);
  void Send(int number, const std::string& session);
  void OnSent(int number, const absl::Status& status);
  void Succeed(int number);
  void Fail(int number, const absl::Status& why);
  void CloseTarget(const std::string& target_id);
  void OnNotClosed(int number, const absl::Status& why);
  void FinishClosing(int number, const absl::StatusOr<Done>& result);

  net::EventLoop& loop_;
  DevToolsPipe& devtools_;
  BrowserWindows& windows_;
  IncognitoContexts& contexts_;
  int last_number_ = 0;
  std::map<int, Opening> openings_;
  std::map<int, Closing> closings_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_WINDOW_OPENER_H_
