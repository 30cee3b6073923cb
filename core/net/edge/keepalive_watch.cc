#include "core/net/edge/keepalive_watch.h"

#include <utility>

namespace varnic::net {

KeepaliveWatch::Step KeepaliveWatch::Look(LoopClock::time_point now, std::uint64_t bytes_received,
                                          bool wanted) {
  const bool heard = std::exchange(bytes_received_, bytes_received) != bytes_received;
  if (heard || !wanted || !since_.has_value()) {
    since_ = now;
    pinged_ = false;
    return Step::kNone;
  }
  const absl::Duration silence = LoopClock::Between(*since_, now);
  if (pinged_) return silence >= timeout_ ? Step::kGiveUp : Step::kNone;
  if (silence < time_) return Step::kNone;
  since_ = now;
  pinged_ = true;
  return Step::kPing;
}

}  // namespace varnic::net
