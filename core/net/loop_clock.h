#ifndef CORE_NET_LOOP_CLOCK_H_
#define CORE_NET_LOOP_CLOCK_H_

#include <chrono>

#include "absl/time/time.h"

namespace varnic::net {

namespace testing {
class FakeClock;
}  // namespace testing

// The clock of a loop's timers, and of whatever measures how long something takes: steady, and
// unrelated to the calendar. Stands still on a thread whose time a test holds; see
// testing/fake_clock.h.
class LoopClock {
 public:
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<LoopClock>;
  // What <chrono> asks of a clock.
  static constexpr bool is_steady = true;  // NOLINT(readability-identifier-naming)

  static time_point now() {
    if (held_ != nullptr) return *held_;
    return time_point(std::chrono::steady_clock::now().time_since_epoch());
  }

  static absl::Duration Between(time_point earlier, time_point later) {
    return absl::FromChrono(later - earlier);
  }

  // Whether a test holds this thread's time.
  static bool IsHeld() { return held_ != nullptr; }

 private:
  friend class testing::FakeClock;

  inline static thread_local const time_point* held_ = nullptr;
};

}  // namespace varnic::net

#endif  // CORE_NET_LOOP_CLOCK_H_
