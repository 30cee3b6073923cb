#include "core/host/browser/start_pacer.h"

#include <algorithm>

namespace varnic::host {
namespace {

net::BackoffOptions Doubling(const StartPacing& pacing) {
  net::BackoffOptions options;
  options.initial = pacing.first_delay;
  options.multiplier = 2;
  options.jitter = 0;
  options.max = pacing.max_delay;
  return options;
}

absl::Duration Since(net::LoopClock::time_point earlier) {
  return net::LoopClock::Between(earlier, net::LoopClock::now());
}

}  // namespace

StartPacer::StartPacer(const StartPacing& pacing)
    : waits_(pacing.first_delay > absl::ZeroDuration()),
      steady_time_(pacing.steady_time),
      backoff_(Doubling(pacing)) {}

void StartPacer::OnStart() {
  started_ = net::LoopClock::now();
  up_since_ = std::nullopt;
}

void StartPacer::OnUp() {
  up_since_ = net::LoopClock::now();
}

void StartPacer::OnFailure() {
  if (up_since_ && Since(*up_since_) >= steady_time_) backoff_.Reset();
  if (waits_) delay_ = backoff_.Next();
}

void StartPacer::OnEnd() {
  delay_ = absl::ZeroDuration();
}

absl::Duration StartPacer::UntilNext() const {
  return std::max(delay_ - Since(started_), absl::ZeroDuration());
}

}  // namespace varnic::host
