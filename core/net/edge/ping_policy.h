#ifndef CORE_NET_EDGE_PING_POLICY_H_
#define CORE_NET_EDGE_PING_POLICY_H_

#include <cstdint>
#include <optional>

#include "absl/time/time.h"
#include "core/net/loop_clock.h"

namespace varnic::net {

// Which pings of a peer are too many, as gRPC has it: one that comes sooner than a tenth less than
// `min_interval` after another is a strike, and the third strike is one too many. A ping after
// something was sent to the peer is a measurement of the link: it is free, and takes all strikes
// back.
class PingPolicy {
 public:
  explicit PingPolicy(absl::Duration min_interval) : min_interval_(min_interval * 0.9) {}

  // For each ping; false if it is one too many. `frames_sent` counts those that carried something
  // for the peer's calls.
  [[nodiscard]] bool Admit(LoopClock::time_point now, std::uint64_t frames_sent);

 private:
  const absl::Duration min_interval_;
  std::optional<LoopClock::time_point> last_;
  std::uint64_t frames_sent_ = 0;
  int strikes_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_PING_POLICY_H_
