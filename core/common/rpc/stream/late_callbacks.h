#ifndef CORE_COMMON_RPC_STREAM_LATE_CALLBACKS_H_
#define CORE_COMMON_RPC_STREAM_LATE_CALLBACKS_H_

#include <functional>
#include <memory>

#include "core/common/rpc/scheduler.h"

namespace varnic {

// Callbacks that wait for the scheduler, and that their owner can still run when it must not wait
// any longer. Each runs once, in the order in which they were added.
//
// A callback may add others, which wait for the next turn, and may destroy this. Destruction drops
// what has not run. RPC thread only; the scheduler outlives this.
class LateCallbacks {
 public:
  explicit LateCallbacks(Scheduler& scheduler);
  LateCallbacks(const LateCallbacks&) = delete;
  LateCallbacks& operator=(const LateCallbacks&) = delete;
  ~LateCallbacks();

  void Add(std::function<void()> callback);
  // Runs all of them now, and what they add.
  void RunAll();

 private:
  struct Queue;

  Scheduler& scheduler_;
  std::shared_ptr<Queue> queue_;  // Shared while it runs.
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_LATE_CALLBACKS_H_
