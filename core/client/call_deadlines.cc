#include "core/client/call_deadlines.h"

#include <algorithm>
#include <vector>

namespace varnic {
namespace {

// The clock cannot count to the end of an infinite one.
constexpr absl::Duration kLongestTimeout = absl::Hours(24 * 365);

}  // namespace

CallDeadlines::CallDeadlines(net::EventLoop& loop, std::function<void(CallId)> on_due)
    : on_due_(std::move(on_due)), timer_(loop) {}

CallDeadlines::TimePoint CallDeadlines::Add(CallId call_id, absl::Duration timeout) {
  if (timeout > kLongestTimeout) return kNone;
  const absl::Duration delay = std::max(timeout, absl::ZeroDuration());
  const TimePoint due = net::LoopClock::now() + absl::ToChronoNanoseconds(delay);
  deadlines_.emplace(due, call_id);
  Arm();
  return due;
}

void CallDeadlines::Remove(CallId call_id, TimePoint due) {
  deadlines_.erase({due, call_id});
}

absl::Duration CallDeadlines::Until(TimePoint due) {
  return due == kNone ? absl::InfiniteDuration()
                      : net::LoopClock::Between(net::LoopClock::now(), due);
}

void CallDeadlines::Arm() {
  if (deadlines_.empty() || armed_for_ <= deadlines_.begin()->first) return;
  armed_for_ = deadlines_.begin()->first;
  timer_.Start(Until(armed_for_), [this] { OnTimer(); });
}

// Collects first: a callback that calls again without any time would keep this going.
void CallDeadlines::OnTimer() {
  armed_for_ = kNone;
  const TimePoint now = net::LoopClock::now();
  std::vector<CallId> due;
  while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
    due.push_back(deadlines_.begin()->second);
    deadlines_.erase(deadlines_.begin());
  }
  Arm();
  for (const CallId call_id : due) on_due_(call_id);
}

}  // namespace varnic
