#ifndef CORE_HOST_DEBOUNCE_H_
#define CORE_HOST_DEBOUNCE_H_

#include <functional>
#include <memory>

#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"

namespace varnic::host {

struct DebounceTimes {
  // How long nothing more must happen.
  absl::Duration quiet = absl::Milliseconds(250);
  // How long a burst may go on, from the first thing that happens.
  absl::Duration longest = absl::Seconds(1);
};

// Makes one call of a burst of many. RPC thread only.
class Debounce {
 public:
  // Runs `on_quiet`, from a timer, once for each burst. It may call OnChange(), which begins the
  // next burst, and may not destroy this. The scheduler must outlive this.
  Debounce(Scheduler& scheduler, const DebounceTimes& times, std::function<void()> on_quiet);
  Debounce(const Debounce&) = delete;
  Debounce& operator=(const Debounce&) = delete;

  void OnChange();
  // Forgets the burst that goes on.
  void Cancel();

 private:
  void OnTimer();

  Scheduler& scheduler_;
  const DebounceTimes times_;
  const std::function<void()> on_quiet_;
  // Null between two bursts.
  std::unique_ptr<Scheduler::Timer> quiet_timer_;
  std::unique_ptr<Scheduler::Timer> longest_timer_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_DEBOUNCE_H_
