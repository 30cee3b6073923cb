#include "core/common/rpc/testing/fake_scheduler.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>

namespace varnic::testing {

class FakeScheduler::FakeTimer final : public Scheduler::Timer {
 public:
  FakeTimer(FakeScheduler& scheduler, TimerKey key) : scheduler_(scheduler), key_(key) {}
  ~FakeTimer() override {
    // Kept until the entry is gone: what the task holds may come back here.
    const auto entry = scheduler_.timers_.extract(key_);
  }

 private:
  FakeScheduler& scheduler_;
  const TimerKey key_;
};

// What a task holds may post while it is destroyed.
FakeScheduler::~FakeScheduler() {
  while (!posted_.empty()) {
    const std::function<void()> task = std::move(posted_.front());
    posted_.pop_front();
  }
}

void FakeScheduler::Post(std::function<void()> task) {
  posted_.push_back(std::move(task));
}

std::unique_ptr<Scheduler::Timer> FakeScheduler::RunAfter(absl::Duration delay,
                                                          std::function<void()> task) {
  const TimerKey key(now_ + std::max(delay, absl::ZeroDuration()), timers_made_++);
  timers_.emplace(key, std::move(task));
  return std::make_unique<FakeTimer>(*this, key);
}

void FakeScheduler::RunPosted() {
  while (!posted_.empty()) {
    const std::function<void()> task = std::move(posted_.front());
    posted_.pop_front();
    task();
  }
}

void FakeScheduler::Advance(absl::Duration duration) {
  const absl::Duration end = now_ + duration;
  RunPosted();
  while (!timers_.empty() && timers_.begin()->first.first <= end) {
    const auto timer = timers_.extract(timers_.begin());
    now_ = std::max(now_, timer.key().first);
    timer.mapped()();
    RunPosted();
  }
  now_ = std::max(now_, end);
}

}  // namespace varnic::testing
