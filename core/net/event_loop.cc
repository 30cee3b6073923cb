#include "core/net/event_loop.h"

#include <algorithm>
#include <csignal>
#include <optional>
#include <utility>

#include "core/net/asio.h"
#include "core/net/lifetime.h"
#include "core/net/loop_clock.h"

namespace varnic::net {
namespace {

using AsioTimer = asio::basic_waitable_timer<LoopClock>;

constexpr absl::Duration kLongestDelay = absl::Hours(24 * 365);

}  // namespace

// Makes the calling thread the loop's.
class EventLoop::RunScope {
 public:
  explicit RunScope(EventLoop& loop) : loop_(loop) {
    std::thread::id nobody;
    VARNIC_CHECK(loop_.thread_.compare_exchange_strong(nobody, std::this_thread::get_id()));
  }
  ~RunScope() { loop_.thread_ = std::thread::id(); }

 private:
  EventLoop& loop_;
};

// Between two runs too: a context that runs out of work counts as stopped for good.
struct EventLoop::Work {
  explicit Work(asio::io_context& context) : guard(asio::make_work_guard(context)) {}

  const asio::executor_work_guard<asio::io_context::executor_type> guard;
};

// One thread runs the loop, so Asio may leave out what more would need.
EventLoop::EventLoop()
    : context_(std::make_unique<asio::io_context>(/*concurrency_hint=*/1)),
      work_(std::make_unique<Work>(*context_)) {}
EventLoop::~EventLoop() = default;

void EventLoop::Run() {
  const RunScope scope(*this);
  context_->run();
}

bool EventLoop::RunUntil(absl::FunctionRef<bool()> done) {
  const RunScope scope(*this);
  while (!done()) {
    if (context_->run_one() == 0) return false;
  }
  return true;
}

std::size_t EventLoop::RunPending() {
  const RunScope scope(*this);
  const bool was_stopped = context_->stopped();
  if (was_stopped) context_->restart();
  // Up to here and no further: a task that posts itself again must not keep this going.
  const auto reached = std::make_shared<bool>(false);
  const auto mark_end = [this, reached] { asio::post(*context_, [reached] { *reached = true; }); };
  std::size_t own_tasks = 1;
  // Asio looks at its timers when the first of them is due by the real clock. This one always is,
  // and runs before the others, which so come before the end.
  std::optional<AsioTimer> first_timer;
  if (LoopClock::IsHeld()) {
    ++own_tasks;
    first_timer.emplace(*context_, LoopClock::time_point::min());
    first_timer->async_wait([mark_end](const asio::error_code& /*error*/) { mark_end(); });
  } else {
    mark_end();
  }
  // None is run after a task that stops the loop.
  std::size_t runs = 0;
  while (!*reached && context_->poll_one() > 0) ++runs;
  if (was_stopped) context_->stop();
  return *reached ? runs - own_tasks : runs;
}

void EventLoop::Stop() {
  context_->stop();
}

bool EventLoop::IsStopped() const {
  return context_->stopped();
}

void EventLoop::Post(std::function<void()> task) {
  asio::post(*context_, std::move(task));
}

bool EventLoop::IsLoopThread() const {
  const std::thread::id thread = thread_;
  return thread == std::thread::id() || thread == std::this_thread::get_id();
}

class Timer::Impl {
 public:
  explicit Impl(EventLoop& loop) : timer_(loop.context()) {}

  void Start(absl::Duration delay, std::function<void()> callback) {
    const unsigned start = ++starts_;
    // The clock cannot count to the end of an infinite delay.
    timer_.expires_after(absl::ToChronoNanoseconds(std::min(delay, kLongestDelay)));
    timer_.async_wait(lifetime_.Guard(
        [this, start, callback = std::move(callback)](const asio::error_code& error) {
          // A wait that was over before the cancellation reached it reports no error.
          if (!error && start == starts_) callback();
        }));
  }

  void Cancel() {
    ++starts_;
    timer_.cancel();
  }

 private:
  AsioTimer timer_;
  unsigned starts_ = 0;
  Lifetime lifetime_;
};

Timer::Timer(EventLoop& loop) : impl_(std::make_unique<Impl>(loop)) {}
Timer::~Timer() = default;
void Timer::Start(absl::Duration delay, std::function<void()> callback) {
  impl_->Start(delay, std::move(callback));
}
void Timer::Cancel() {
  impl_->Cancel();
}

class StopSignals::Impl {
 public:
  Impl(EventLoop& loop, std::function<void(int)> on_signal)
      : signals_(loop.context(), SIGINT, SIGTERM), on_signal_(std::move(on_signal)) {
    Wait();
  }

 private:
  void Wait() {
    signals_.async_wait(lifetime_.Guard([this](const asio::error_code& error, int signal) {
      if (error) return;
      Wait();
      on_signal_(signal);
    }));
  }

  asio::signal_set signals_;
  const std::function<void(int)> on_signal_;
  Lifetime lifetime_;
};

StopSignals::StopSignals(EventLoop& loop, std::function<void(int)> on_signal)
    : impl_(std::make_unique<Impl>(loop, std::move(on_signal))) {}
StopSignals::~StopSignals() = default;

}  // namespace varnic::net
