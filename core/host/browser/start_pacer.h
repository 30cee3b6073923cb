#ifndef CORE_HOST_BROWSER_START_PACER_H_
#define CORE_HOST_BROWSER_START_PACER_H_

#include <optional>

#include "absl/time/time.h"
#include "core/net/backoff.h"
#include "core/net/loop_clock.h"

namespace varnic::host {

struct StartPacing {
  // How far apart two starts are, at least, after a browser failed to come up or crashed: the first
  // time, then twice as long each time, and at most. With zero for the first, there is no wait.
  absl::Duration first_delay = absl::Seconds(1);
  absl::Duration max_delay = absl::Minutes(2);
  // A browser that was up for so long has nothing to do with the failures before it.
  absl::Duration steady_time = absl::Minutes(1);
};

// Says when a browser may be started again. To come up is no success yet, for one that crashes soon
// after would be started for ever. By the LoopClock; waits for nothing itself. One thread.
class StartPacer {
 public:
  explicit StartPacer(const StartPacing& pacing);

  void OnStart();
  void OnUp();
  // It failed to come up, or ended without being asked.
  void OnFailure();
  // It was ended: the next may be started at once.
  void OnEnd();

  // How long from now; zero if it may be started at once.
  absl::Duration UntilNext() const;

 private:
  const bool waits_;
  const absl::Duration steady_time_;
  net::Backoff backoff_;
  absl::Duration delay_;  // From the last start; none before the first failure.
  net::LoopClock::time_point started_;
  std::optional<net::LoopClock::time_point> up_since_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_START_PACER_H_
