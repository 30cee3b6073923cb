#ifndef CORE_NET_BACKOFF_H_
#define CORE_NET_BACKOFF_H_

#include <random>

#include "absl/time/time.h"

namespace varnic::net {

// How long to wait between attempts that fail: gRPC's own figures, see its "Connection Backoff
// Protocol".
struct BackoffOptions {
  absl::Duration initial = absl::Seconds(1);  // A millisecond at least.
  double multiplier = 1.6;
  // Each delay is longer or shorter by up to this share of it.
  double jitter = 0.2;
  absl::Duration max = absl::Seconds(120);  // Before the jitter.
};

// The delays of one row of attempts, which grow until one attempt succeeds. Waits for nothing
// itself. One thread.
class Backoff {
 public:
  explicit Backoff(const BackoffOptions& options);

  absl::Duration Next();
  // The next delay is the first one again.
  void Reset() { next_ = options_.initial; }

 private:
  const BackoffOptions options_;
  absl::Duration next_;
  std::minstd_rand random_;
};

}  // namespace varnic::net

#endif  // CORE_NET_BACKOFF_H_
