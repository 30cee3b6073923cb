#ifndef CORE_NET_EVENT_LOOP_H_
#define CORE_NET_EVENT_LOOP_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "absl/functional/function_ref.h"
#include "absl/time/time.h"
#include "core/net/loop_clock.h"

namespace asio {
class io_context;
}  // namespace asio

namespace varnic::net {

// The loop that one thread runs, and on which everything of a server or a client happens: sockets,
// timers and posted tasks, one at a time.
//
// Outlives everything that is made on it. Post(), Stop() and IsStopped() may be called from any
// thread; the rest belongs to the thread that runs the loop, or to whichever thread sets it up or
// takes it down while nobody runs it.
class EventLoop {
 public:
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  // Tasks that have not run are destroyed unrun.
  ~EventLoop();

  // Makes the calling thread the loop's until Stop(). A Stop() before Run() counts, and a loop that
  // was stopped never runs again. Fatal while the loop runs already.
  //
  // With `busy_poll`, the thread looks for work for so long, by the real clock, before it sleeps.
  // To be woken takes longer than most tasks do; but the looking takes a core's whole time.
  void Run(absl::Duration busy_poll = absl::ZeroDuration());
  // The same until `done()` holds, which is asked after every step; false after Stop(). A step is
  // one task, all timers that are due, or all deferred tasks of a turn.
  bool RunUntil(absl::FunctionRef<bool()> done);
  void Stop();
  bool IsStopped() const;

  // Runs what is ready to run, without waiting; after Stop() too, so that an owner can settle what
  // was posted before it goes. What this posts in turn waits. Returns how many tasks ran.
  std::size_t RunPending();

  // Runs `task` on the loop's thread, later; those of one thread in the order of its calls.
  void Post(std::function<void()> task);

  // Whether the caller may touch what lives on the loop.
  bool IsLoopThread() const;

  asio::io_context& context() { return *context_; }

 private:
  friend class DeferredTask;
  friend class Timer;
  class RunScope;
  struct Work;
  class TimerQueue;
  class DeferredTasks;

  // Whether anything ran, which is waited for without sleeping.
  bool PollFor(std::chrono::nanoseconds time);

  std::atomic<std::thread::id> thread_;  // None while nobody runs the loop.
  // Before the context: what its unrun tasks own may cancel timers and tasks when it goes.
  std::unique_ptr<TimerQueue> timers_;
  std::unique_ptr<DeferredTasks> deferred_tasks_;
  std::unique_ptr<asio::io_context> context_;
  std::unique_ptr<Work> work_;  // Lets a loop with nothing to do wait, rather than end.
};

// One timer on a loop, by the LoopClock. Safe to start again, to cancel and to destroy at any time,
// inside its own callback too; the callback of a cancelled or destroyed timer never runs. Starting
// and cancelling cost little: most timers never come due.
class Timer {
 public:
  explicit Timer(EventLoop& loop) : loop_(loop) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { Cancel(); }

  // Runs `callback` once, `delay` from now, but in a year at the latest. An earlier Start() no
  // longer counts.
  void Start(absl::Duration delay, std::function<void()> callback);
  void Cancel();

 private:
  EventLoop& loop_;
  LoopClock::time_point due_;
  std::uint64_t number_ = 0;  // Of the last Start(); 0 after Cancel().
};

// What an object does later on its loop, once for any number of Post()s. Takes no memory for each,
// and those of one turn run in one go, in the order of their posts, maybe ahead of tasks that were
// posted before: for what thousands of objects do after the same event. Safe to post again, to
// cancel and to destroy at any time, inside its own task too; the task of a cancelled or destroyed
// one never runs.
class DeferredTask {
 public:
  DeferredTask(EventLoop& loop, std::function<void()> task) : loop_(loop), task_(std::move(task)) {}
  DeferredTask(const DeferredTask&) = delete;
  DeferredTask& operator=(const DeferredTask&) = delete;
  ~DeferredTask() { Cancel(); }

  void Post();
  void Cancel();

 private:
  friend class EventLoop::DeferredTasks;

  EventLoop& loop_;
  const std::function<void()> task_;
  bool is_posted_ = false;
  // Where the loop has it, while it is posted.
  std::uint64_t turn_ = 0;
  std::size_t place_ = 0;
};

// Watches for SIGINT and SIGTERM on a loop, instead of their default actions.
class StopSignals {
 public:
  // Runs `on_signal` on the loop, once for each signal.
  StopSignals(EventLoop& loop, std::function<void(int signal)> on_signal);
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EVENT_LOOP_H_
