#ifndef CORE_NET_EDGE_KEEPALIVE_WATCH_H_
#define CORE_NET_EDGE_KEEPALIVE_WATCH_H_

#include <algorithm>
#include <cstdint>
#include <optional>

#include "absl/time/time.h"
#include "core/net/loop_clock.h"

namespace varnic::net {

// Tells when a peer that says nothing is to be sent a ping, and when it is to be given up. Any byte
// from it counts as a sign of life. Counts from the first look that finds nothing new, so look a
// few times in `time`.
class KeepaliveWatch {
 public:
  enum class Step { kNone, kPing, kGiveUp };

  KeepaliveWatch(absl::Duration time, absl::Duration timeout) : time_(time), timeout_(timeout) {}

  // `bytes_received` counts all that ever came. Nobody is sent a ping while not `wanted`.
  Step Look(LoopClock::time_point now, std::uint64_t bytes_received, bool wanted);

  // When to look again at the latest.
  absl::Duration next_look() const { return (pinged_ ? std::min(time_, timeout_) : time_) / 8; }

 private:
  const absl::Duration time_;
  const absl::Duration timeout_;
  std::optional<LoopClock::time_point> since_;  // Of the last sign of life; then of the ping.
  std::uint64_t bytes_received_ = 0;
  bool pinged_ = false;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_KEEPALIVE_WATCH_H_
