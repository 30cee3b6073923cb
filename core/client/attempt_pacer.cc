#include "core/client/attempt_pacer.h"

#include <algorithm>

namespace varnic {

void AttemptPacer::OnAttempt() {
  began_ = net::LoopClock::now();
  delay_ = backoff_.Next();
}

void AttemptPacer::OnSuccess() {
  backoff_.Reset();
  delay_ = backoff_.Next();
  backoff_.Reset();  // The next attempt is the first of its row.
}

void AttemptPacer::Reset() {
  backoff_.Reset();
  began_.reset();
}

absl::Duration AttemptPacer::UntilNext() const {
  if (!began_.has_value()) return absl::ZeroDuration();
  const absl::Duration passed = net::LoopClock::Between(*began_, net::LoopClock::now());
  return std::max(delay_ - passed, absl::ZeroDuration());
}

}  // namespace varnic
