#ifndef CORE_HOST_BROWSER_TARGET_POLL_H_
#define CORE_HOST_BROWSER_TARGET_POLL_H_

#include <functional>

#include "absl/time/time.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

// Asks the browser once a second what its pages are: of a title that a page gets or changes, it
// tells nobody by itself. One question at a time. Lives on the loop's thread; the pipe outlives it.
class TargetPoll {
 public:
  // Asks while `is_wanted` holds, from now on; `on_info` takes the "targetInfo" of each page.
  TargetPoll(net::EventLoop& loop, DevToolsPipe& devtools, std::function<bool()> is_wanted,
             std::function<void(const nlohmann::json& info)> on_info);
  TargetPoll(const TargetPoll&) = delete;
  TargetPoll& operator=(const TargetPoll&) = delete;

  static constexpr absl::Duration kPeriod = absl::Seconds(1);

 private:
  void Wait();
  void Ask();
  void OnTargets(const absl::StatusOr<nlohmann::json>& answer);

  DevToolsPipe& devtools_;
  const std::function<bool()> is_wanted_;
  const std::function<void(const nlohmann::json&)> on_info_;
  net::Timer timer_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_TARGET_POLL_H_
