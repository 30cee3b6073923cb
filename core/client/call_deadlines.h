#ifndef CORE_CLIENT_CALL_DEADLINES_H_
#define CORE_CLIENT_CALL_DEADLINES_H_

#include <cstdint>
#include <functional>
#include <set>
#include <utility>

#include "absl/time/time.h"
#include "core/net/event_loop.h"
#include "core/net/loop_clock.h"

namespace varnic {

// When the calls of a client are to have ended: one timer for all of them, which a call that ends
// in time does not touch.
//
// Lives on the loop. `on_due` may add and remove deadlines, and must not destroy this.
class CallDeadlines {
 public:
  using CallId = std::uint64_t;
  using TimePoint = net::LoopClock::time_point;

  // Of a call that has none.
  static constexpr TimePoint kNone = TimePoint::max();

  CallDeadlines(net::EventLoop& loop, std::function<void(CallId)> on_due);
  CallDeadlines(const CallDeadlines&) = delete;
  CallDeadlines& operator=(const CallDeadlines&) = delete;

  // `on_due` runs on the loop `timeout` from now, never inside this; kNone, and never, if that is
  // more than a year.
  TimePoint Add(CallId call_id, absl::Duration timeout);
  // The call has ended; `due` is what Add() gave.
  void Remove(CallId call_id, TimePoint due);

  // What is left; infinite for kNone.
  static absl::Duration Until(TimePoint due);

 private:
  void Arm();
  void OnTimer();

  const std::function<void(CallId)> on_due_;
  std::set<std::pair<TimePoint, CallId>> deadlines_;
  TimePoint armed_for_ = kNone;  // When the timer runs, however little is left to do then.
  net::Timer timer_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_CALL_DEADLINES_H_
