#ifndef CORE_NET_EDGE_TOKEN_BUCKET_H_
#define CORE_NET_EDGE_TOKEN_BUCKET_H_

#include <cstdint>

#include "core/net/loop_clock.h"

namespace varnic::net {

// How often something may happen: so many times at once, and so many times a second for as long as
// it goes on.
struct TokenRate {
  uint32_t burst = 0;
  uint32_t per_second = 0;
};

// Counts what may happen at a TokenRate: over any stretch of time, no more than the burst and what
// the rate gives for that time. Full at first. Exact, in whole numbers: whoever keeps to the rate
// is never refused.
class TokenBucket {
 public:
  using Time = LoopClock::time_point;

  explicit TokenBucket(TokenRate rate);

  // Takes `tokens` out, if there are as many. A time before that of an earlier call counts as that.
  [[nodiscard]] bool Take(uint32_t tokens, Time now);

 private:
  void Refill(Time now);

  const uint64_t capacity_;    // In billionths of a token, as is the level,
  const uint64_t per_second_;  // so that a nanosecond brings this many of them.
  uint64_t level_;
  Time filled_at_ = Time::min();
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_TOKEN_BUCKET_H_
