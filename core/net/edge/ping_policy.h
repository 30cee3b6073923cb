#ifndef CORE_NET_EDGE_PING_POLICY_H_
#define CORE_NET_EDGE_PING_POLICY_H_

#include <cstdint>

#include "absl/time/time.h"
#include "core/net/loop_clock.h"

namespace varnic::net {

// Which pings of a peer are too many. One that comes sooner than three quarters of `min_interval`
// after another is too early; two such may stand at a time, and one more is one too many. Time
// takes them back: each ping may be as early as those before it were late, so that a peer which
// pings once in an interval is never ended, however its pings are held up on their way.
//
// A ping after something was sent to the peer is a measurement of the link: it takes back all that
// came before it.
class PingPolicy {
 public:
  explicit PingPolicy(absl::Duration min_interval) : cost_(min_interval * 0.75) {}

  // For each ping; false if it is one too many. `frames_sent` counts those that carried something
  // for the peer's calls.
  [[nodiscard]] bool Admit(LoopClock::time_point now, std::uint64_t frames_sent);

 private:
  const absl::Duration cost_;  // What one ping takes of the peer's time.
  absl::Duration owed_;        // Such time that has not passed, as of `last_`.
  LoopClock::time_point last_;
  std::uint64_t frames_sent_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_PING_POLICY_H_
