#ifndef CORE_NET_EDGE_CONNECTION_GUARD_H_
#define CORE_NET_EDGE_CONNECTION_GUARD_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "absl/time/time.h"
#include "core/net/edge/connection_limits.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/idle_watch.h"
#include "core/net/edge/keepalive_watch.h"
#include "core/net/edge/ping_policy.h"
#include "core/net/edge/stall_watch.h"
#include "core/net/loop_clock.h"

namespace varnic::net {

// The rules that hold for one connection over time. Has no timer and does nothing itself: looks now
// and then at what the connection has counted, and says what is to be done and when to look again.
// So what a connection does all the time costs no more than the counting.
class ConnectionGuard {
 public:
  // What happened so far.
  struct Activity {
    bool greeted = false;  // The peer has sent its first SETTINGS.
    std::uint64_t bytes_received = 0;
    std::uint64_t streams_opened = 0;
    WaitingOutput output;
  };

  struct Verdict {
    // The connection is to end. Comes once if that is for kIdle.
    std::optional<EdgeRule> end;
    // These are to be reset.
    std::vector<std::int32_t> stalled_streams;
    // The peer is to be sent a ping.
    bool ping = false;
    // Infinite if there is nothing to look for.
    absl::Duration next_look = absl::InfiniteDuration();
  };

  // The connection begins `now`.
  ConnectionGuard(const ConnectionLimits& limits, LoopClock::time_point now);

  Verdict Look(LoopClock::time_point now, const Activity& activity);

  // Whether to look at once, now that output waits for the peer.
  bool WantsLookAtOutput() const { return stall_.has_value() && !watches_output_; }

  // For each ping of the peer; `frames_sent` as for a PingPolicy. False if it ends the connection.
  [[nodiscard]] bool AdmitPing(LoopClock::time_point now, std::uint64_t frames_sent);

 private:
  // Each of these looks at one rule, and leaves in the verdict what follows.
  void LookAtHandshake(LoopClock::time_point now, const Activity& activity, Verdict& verdict) const;
  void LookAtIdleness(LoopClock::time_point now, const Activity& activity, Verdict& verdict);
  void LookAtOutput(LoopClock::time_point now, const Activity& activity, Verdict& verdict);
  void LookForLife(LoopClock::time_point now, const Activity& activity, Verdict& verdict);

  const ConnectionLimits limits_;
  const LoopClock::time_point begin_;
  // Those that are on.
  std::optional<IdleWatch> idle_;
  std::optional<StallWatch> stall_;
  std::optional<KeepaliveWatch> keepalive_;
  std::optional<PingPolicy> pings_;
  bool watches_output_ = false;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_CONNECTION_GUARD_H_
