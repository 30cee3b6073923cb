#ifndef CORE_HOST_BROWSER_REQUEST_REPLIES_H_
#define CORE_HOST_BROWSER_REQUEST_REPLIES_H_

#include <cstddef>
#include <deque>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/net/lifetime.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

struct RequestReplyLimits {
  // Replies that the browser has been sent, and has not confirmed.
  size_t in_flight = 1000;
  // Those that wait behind them. A browser that needs more is given up: its pipe is closed.
  size_t waiting = 500'000;
  // When to try again what the pipe had no room for.
  absl::Duration retry_time = absl::Milliseconds(100);
};

// Tells a browser what becomes of the requests that it has paused, in the order of the calls. None
// is lost while the pipe is open, however many there are. That a request is gone is no failure.
//
// Destroying it sends what waits, as far as the pipe has room. Lives on the pipe's thread; what it
// is given outlives it.
class RequestReplies {
 public:
  RequestReplies(DevToolsPipe& devtools, Scheduler& scheduler,
                 const RequestReplyLimits& limits = {});
  RequestReplies(const RequestReplies&) = delete;
  RequestReplies& operator=(const RequestReplies&) = delete;
  ~RequestReplies();

  // For a request that is paused before it is sent.
  // With other headers, all of them, unless they are null.
  void Continue(const std::string& request_id, nlohmann::json headers = nullptr);
  void Refuse(const std::string& request_id);  // The page is shown net::ERR_ACCESS_DENIED.

  // For one that was asked for credentials. Without them, the page is shown what came with the
  // challenge; so it is if the browser cannot read these.
  void Authenticate(const std::string& request_id, const std::string& username,
                    const std::string& password);
  void CancelLogin(const std::string& request_id);

  size_t waiting() const { return waiting_.size(); }

 private:
  enum class Kind { kContinue, kRefuse, kAuthenticate, kCancelLogin };
  struct Reply {
    Kind kind;
    std::string request_id;
    nlohmann::json headers = nullptr;
    std::string username = {};
    std::string password = {};
  };

  static DevToolsCommand CommandOf(const Reply& reply);

  void Add(Reply reply);
  void SendWaiting();
  void Send(const std::shared_ptr<const Reply>& reply);
  void OnAnswer(const std::shared_ptr<const Reply>& reply, const absl::Status& status);

  DevToolsPipe& devtools_;
  Scheduler& scheduler_;
  const RequestReplyLimits limits_;
  std::deque<Reply> waiting_;
  size_t in_flight_ = 0;
  std::unique_ptr<Scheduler::Timer> retry_timer_;  // While the pipe has no room.
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_REQUEST_REPLIES_H_
