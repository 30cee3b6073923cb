#include "core/net/backoff.h"

#include <algorithm>

namespace varnic::net {
namespace {

// Attempts that fail at once must not keep the loop busy.
constexpr absl::Duration kShortestDelay = absl::Milliseconds(1);

BackoffOptions Sane(BackoffOptions options) {
  options.initial = std::max(options.initial, kShortestDelay);
  options.multiplier = std::max(options.multiplier, 1.0);
  options.jitter = std::clamp(options.jitter, 0.0, 1.0);
  options.max = std::max(options.max, options.initial);
  return options;
}

}  // namespace

Backoff::Backoff(const BackoffOptions& options)
    : options_(Sane(options)), next_(options_.initial), random_(std::random_device{}()) {}

absl::Duration Backoff::Next() {
  std::uniform_real_distribution<double> jitter(-options_.jitter, options_.jitter);
  const absl::Duration delay = next_ * (1 + jitter(random_));
  next_ = std::min(next_ * options_.multiplier, options_.max);
  return std::max(delay, kShortestDelay);
}

}  // namespace varnic::net
