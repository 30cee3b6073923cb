#include "core/net/edge/connection_limits.h"

namespace varnic::net {

ConnectionLimits ConnectionLimits::None() {
  ConnectionLimits limits;
  limits.handshake_timeout = absl::InfiniteDuration();
  limits.max_idle = absl::InfiniteDuration();
  limits.stall_timeout = absl::InfiniteDuration();
  limits.keepalive_time = absl::InfiniteDuration();
  limits.min_ping_interval = absl::ZeroDuration();
  return limits;
}

ConnectionLimits ConnectionLimits::ForLocalPeer() const {
  ConnectionLimits limits = *this;
  limits.keepalive_time = absl::InfiniteDuration();
  limits.min_ping_interval = absl::ZeroDuration();
  return limits;
}

}  // namespace varnic::net
