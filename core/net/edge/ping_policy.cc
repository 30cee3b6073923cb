#include "core/net/edge/ping_policy.h"

#include <algorithm>
#include <utility>

namespace varnic::net {
namespace {

constexpr int kStrikes = 2;

}  // namespace

bool PingPolicy::Admit(LoopClock::time_point now, std::uint64_t frames_sent) {
  const absl::Duration passed = LoopClock::Between(std::exchange(last_, now), now);
  const bool is_free = std::exchange(frames_sent_, frames_sent) != frames_sent;
  owed_ = is_free ? absl::ZeroDuration() : std::max(owed_ - passed, absl::ZeroDuration());
  if (owed_ > kStrikes * cost_) return false;
  owed_ += cost_;
  return true;
}

}  // namespace varnic::net
