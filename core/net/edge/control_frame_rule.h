#ifndef CORE_NET_EDGE_CONTROL_FRAME_RULE_H_
#define CORE_NET_EDGE_CONTROL_FRAME_RULE_H_

#include <algorithm>
#include <cstdint>

#include "core/net/edge/flood_limits.h"
#include "core/net/edge/frame_scanner.h"
#include "core/net/edge/token_bucket.h"

namespace varnic::net {

// How many frames a client may send that carry no call. Streams that it opens and DATA that it gets
// pay for some (FloodLimits::control_frames_per_exchange); the rest has a rate of its own
// (FloodLimits::control_frames). What they have paid for may wait until the client has read what is
// on its way, but is not saved up for longer. So the window updates and the pings of a client that
// reads much never stop it, however fast the connection.
class ControlFrameRule {
 public:
  // Window updates of a client that gives back each DATA frame on its own, on the stream and the
  // connection, with 10,000 of them on their way.
  static constexpr uint64_t kMaxPaid = 20'000;

  explicit ControlFrameRule(const FloodLimits& limits);

  // The client opens a stream, or is sent a DATA frame.
  void OnExchange() { paid_ = std::min(paid_ + per_exchange_, kMaxPaid); }
  // False: one too many, or a SETTINGS with too many entries (FloodLimits::settings_entries).
  [[nodiscard]] bool OnFrame(const FrameHead& frame, TokenBucket::Time now);

 private:
  const uint32_t per_exchange_;
  const uint32_t settings_entries_;
  uint64_t paid_ = 0;  // Frames to come.
  TokenBucket others_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_CONTROL_FRAME_RULE_H_
