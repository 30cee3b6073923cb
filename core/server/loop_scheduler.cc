#include "core/server/loop_scheduler.h"

#include <utility>

namespace varnic {
namespace {

class LoopTimer : public Scheduler::Timer {
 public:
  LoopTimer(net::EventLoop& loop, absl::Duration delay, std::function<void()> task) : timer_(loop) {
    timer_.Start(delay, std::move(task));
  }

 private:
  net::Timer timer_;
};

}  // namespace

void LoopScheduler::Post(std::function<void()> task) {
  loop_.Post(std::move(task));
}

std::unique_ptr<Scheduler::Timer> LoopScheduler::RunAfter(absl::Duration delay,
                                                          std::function<void()> task) {
  return std::make_unique<LoopTimer>(loop_, delay, std::move(task));
}

}  // namespace varnic
