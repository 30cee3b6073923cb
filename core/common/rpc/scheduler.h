#ifndef CORE_COMMON_RPC_SCHEDULER_H_
#define CORE_COMMON_RPC_SCHEDULER_H_

#include <functional>
#include <memory>

#include "absl/time/time.h"

namespace varnic {

// Runs tasks later on the RPC thread, one at a time and with nothing of the streams on the stack.
// The server offers one on its loop; testing/fake_scheduler.h is one for tests.
//
// Outlives what was made with it: the timers, and whoever posts. RPC thread only.
class Scheduler {
 public:
  // Destroying it cancels: its task does not run any more. Safe at any time, also inside the task.
  class Timer {
   public:
    virtual ~Timer() = default;
  };

  virtual ~Scheduler() = default;

  // Runs `task` later, never before this returns, in the order of the calls. A task that has not
  // run when the scheduler goes is destroyed unrun.
  virtual void Post(std::function<void()> task) = 0;

  // Runs `task` once when `delay` has passed, never before this returns, whatever the delay.
  [[nodiscard]] virtual std::unique_ptr<Timer> RunAfter(absl::Duration delay,
                                                        std::function<void()> task) = 0;
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_SCHEDULER_H_
