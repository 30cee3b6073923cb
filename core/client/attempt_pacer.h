#ifndef CORE_CLIENT_ATTEMPT_PACER_H_
#define CORE_CLIENT_ATTEMPT_PACER_H_

#include <optional>

#include "absl/time/time.h"
#include "core/net/backoff.h"
#include "core/net/loop_clock.h"

namespace varnic {

// Says when something may be attempted again: attempts begin at least one delay of a Backoff apart.
// A success begins the delays anew; the first of them counts from the attempt that succeeded, so
// what has lived for longer may be attempted again at once.
//
// By the LoopClock. Waits for nothing itself. One thread.
class AttemptPacer {
 public:
  explicit AttemptPacer(const net::BackoffOptions& options) : backoff_(options) {}

  // An attempt begins.
  void OnAttempt();
  // The last one has succeeded.
  void OnSuccess();
  // As if there had been no attempt.
  void Reset();

  // How long from now; zero if an attempt may begin at once.
  absl::Duration UntilNext() const;

 private:
  net::Backoff backoff_;
  std::optional<net::LoopClock::time_point> began_;
  absl::Duration delay_;  // From there.
};

}  // namespace varnic

#endif  // CORE_CLIENT_ATTEMPT_PACER_H_
