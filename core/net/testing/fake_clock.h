#ifndef CORE_NET_TESTING_FAKE_CLOCK_H_
#define CORE_NET_TESTING_FAKE_CLOCK_H_

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/net/loop_clock.h"

namespace varnic::net::testing {

// Holds the time of this thread while it lives: a timer of a loop comes due only when a test has
// advanced the clock, and runs in the next EventLoop::RunPending(). One at a time on a thread, made
// before what is to go by it; not for EventLoop::Run() and RunUntil(), which wait for real time.
class FakeClock {
 public:
  FakeClock() : now_(LoopClock::now()) {
    VARNIC_CHECK(!LoopClock::IsHeld());
    LoopClock::held_ = &now_;
  }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  ~FakeClock() { LoopClock::held_ = nullptr; }

  void Advance(absl::Duration duration) { now_ += absl::ToChronoNanoseconds(duration); }

 private:
  LoopClock::time_point now_;
};

}  // namespace varnic::net::testing

#endif  // CORE_NET_TESTING_FAKE_CLOCK_H_
