#ifndef CORE_COMMON_RPC_TESTING_FAKE_SCHEDULER_H_
#define CORE_COMMON_RPC_TESTING_FAKE_SCHEDULER_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"

namespace varnic::testing {

// A scheduler with a clock of its own, for the unit tests of a host: nothing runs and no time
// passes unless the test says so.
//
//   FakeScheduler scheduler;
//   CallbackCaller<rpc::CanAccessFile> caller(scheduler);
//   caller.Call(key, request, on_response, on_error, absl::Seconds(30));
//   scheduler.Advance(absl::Seconds(30));  // The call's time is up.
//
// All of it may be called from inside a task.
class FakeScheduler final : public Scheduler {
 public:
  FakeScheduler() = default;
  FakeScheduler(const FakeScheduler&) = delete;
  FakeScheduler& operator=(const FakeScheduler&) = delete;
  ~FakeScheduler() override;

  void Post(std::function<void()> task) override;
  [[nodiscard]] std::unique_ptr<Timer> RunAfter(absl::Duration delay,
                                                std::function<void()> task) override;

  // Runs what was posted, and what that posts in its turn, until nothing is left.
  void RunPosted();

  // Runs what was posted, and then lets `duration` pass: every timer runs at its own time, in the
  // order of the times (equal ones in the order of their making), each followed by what it posted.
  void Advance(absl::Duration duration);

  std::size_t posted_tasks() const { return posted_.size(); }
  // Those that have neither run nor been cancelled.
  std::size_t timers() const { return timers_.size(); }

 private:
  class FakeTimer;
  // When it runs, on the clock that began with the scheduler; then the order of the making.
  using TimerKey = std::pair<absl::Duration, std::int64_t>;

  absl::Duration now_ = absl::ZeroDuration();
  std::int64_t timers_made_ = 0;
  std::deque<std::function<void()>> posted_;
  std::map<TimerKey, std::function<void()>> timers_;
};

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_TESTING_FAKE_SCHEDULER_H_
