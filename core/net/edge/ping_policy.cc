#include "core/net/edge/ping_policy.h"

#include <utility>

namespace varnic::net {
namespace {

constexpr int kStrikes = 2;

}  // namespace

bool PingPolicy::Admit(LoopClock::time_point now, std::uint64_t frames_sent) {
  if (std::exchange(frames_sent_, frames_sent) != frames_sent) {
    strikes_ = 0;
    last_.reset();
  }
  if (last_.has_value() && LoopClock::Between(*last_, now) < min_interval_) {
    return ++strikes_ <= kStrikes;
  }
  last_ = now;
  return true;
}

}  // namespace varnic::net
