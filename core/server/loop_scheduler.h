#ifndef CORE_SERVER_LOOP_SCHEDULER_H_
#define CORE_SERVER_LOOP_SCHEDULER_H_

#include <functional>
#include <memory>

#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/net/event_loop.h"

namespace varnic {

// The scheduler of a server: its loop. The loop must outlive it.
class LoopScheduler : public Scheduler {
 public:
  explicit LoopScheduler(net::EventLoop& loop) : loop_(loop) {}

  void Post(std::function<void()> task) override;
  std::unique_ptr<Timer> RunAfter(absl::Duration delay, std::function<void()> task) override;

 private:
  net::EventLoop& loop_;
};

}  // namespace varnic

#endif  // CORE_SERVER_LOOP_SCHEDULER_H_
