#include "core/net/event_loop.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <map>
#include <optional>
#include <utility>
#include <vector>

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

// The timers of a loop, in the order of their times. Waits with one timer of Asio's for the first
// of them; when that is cancelled, it wakes up for nothing.
class EventLoop::TimerQueue {
 public:
  using Time = LoopClock::time_point;

  void Open(asio::io_context& context) {
    context_ = &context;
    wait_.emplace(context);
  }
  // The context is about to go. Callbacks are destroyed unrun, and so are those that come later.
  void Close() {
    wait_.reset();
    // What a callback owns may come back in here when it ends.
    while (!callbacks_.empty()) callbacks_.extract(callbacks_.begin());
  }

  // The number of the timer, which is not 0.
  std::uint64_t Add(Time due, std::function<void()> callback) {
    if (!wait_.has_value()) return ++last_number_;
    // Mostly behind all others, as most timers of a loop wait for the same time.
    callbacks_.emplace_hint(callbacks_.end(), Key{due, ++last_number_}, std::move(callback));
    WaitForFirst();
    return last_number_;
  }
  // Nothing happens if it has run.
  void Remove(Time due, std::uint64_t number) {
    // What the callback owns may come back in here when it ends.
    const auto removed = callbacks_.extract({due, number});
  }

 private:
  using Key = std::pair<Time, std::uint64_t>;

  void WaitForFirst() {
    if (callbacks_.empty()) return;
    const Time first = callbacks_.begin()->first.first;
    if (first >= waits_until_) return;
    waits_until_ = first;
    wait_->expires_at(first);
    wait_->async_wait([this](const asio::error_code& error) {
      if (!error) RunDue();
    });
  }

  // None after one that stops the loop, and none that another of them starts.
  void RunDue() {
    waits_until_ = Time::max();
    const Time now = LoopClock::now();
    const std::uint64_t last_number = last_number_;
    while (!context_->stopped() && IsDue(now, last_number)) {
      callbacks_.extract(callbacks_.begin()).mapped()();
    }
    WaitForFirst();
  }

  bool IsDue(Time now, std::uint64_t last_number) const {
    if (callbacks_.empty()) return false;
    const auto& [due, number] = callbacks_.begin()->first;
    return due <= now && number <= last_number;
  }

  asio::io_context* context_ = nullptr;
  std::optional<AsioTimer> wait_;  // None before Open() and after Close().
  Time waits_until_ = Time::max();
  std::uint64_t last_number_ = 0;
  std::map<Key, std::function<void()>> callbacks_;
};

// The deferred tasks of a loop, all of a turn behind one task of Asio's.
class EventLoop::DeferredTasks {
 public:
  void Open(asio::io_context& context) { context_ = &context; }
  // The context is about to go. What is posted is never run, and neither is what comes later.
  void Close() { context_ = nullptr; }

  void Add(DeferredTask& task) {
    if (context_ == nullptr || std::exchange(task.is_posted_, true)) return;
    task.turn_ = turn_;
    task.place_ = coming_.size();
    if (coming_.empty()) PostTurn();
    coming_.push_back(&task);
  }
  void Remove(DeferredTask& task) {
    if (!std::exchange(task.is_posted_, false)) return;
    (task.turn_ == turn_ ? coming_ : running_)[task.place_] = nullptr;
  }

 private:
  // When the first of a turn comes.
  void PostTurn() {
    asio::post(*context_, [this] { Run(); });
  }

  // None after one that stops the loop, and none that another of them posts.
  void Run() {
    BeginTurn();
    std::size_t next = 0;
    while (next < running_.size() && !context_->stopped()) {
      if (DeferredTask* task = running_[next++]; task != nullptr) Run(*task);
    }
    if (next < running_.size()) PutBack(next);
    running_.clear();
  }
  static void Run(DeferredTask& task) {
    task.is_posted_ = false;
    const std::function<void()> run = task.task_;  // Which may destroy the task.
    run();
  }
  void BeginTurn() {
    running_.swap(coming_);
    ++turn_;
  }
  // Those from `first` on, which a stop keeps waiting, go before those that are coming.
  void PutBack(std::size_t first) {
    if (coming_.empty()) PostTurn();
    coming_.insert(coming_.begin(), running_.begin() + static_cast<std::ptrdiff_t>(first),
                   running_.end());
    for (std::size_t place = 0; place < coming_.size(); ++place) {
      if (coming_[place] == nullptr) continue;
      coming_[place]->turn_ = turn_;
      coming_[place]->place_ = place;
    }
  }

  asio::io_context* context_ = nullptr;  // None before Open() and after Close().
  std::uint64_t turn_ = 0;               // Of those that are coming.
  std::vector<DeferredTask*> coming_;    // Null where one was cancelled.
  std::vector<DeferredTask*> running_;   // The same; none between two turns.
};

// One thread runs the loop, so Asio may leave out what more would need.
EventLoop::EventLoop()
    : timers_(std::make_unique<TimerQueue>()),
      deferred_tasks_(std::make_unique<DeferredTasks>()),
      context_(std::make_unique<asio::io_context>(/*concurrency_hint=*/1)),
      work_(std::make_unique<Work>(*context_)) {
  timers_->Open(*context_);
  deferred_tasks_->Open(*context_);
}
EventLoop::~EventLoop() {
  timers_->Close();
  deferred_tasks_->Close();
}

void EventLoop::Run(absl::Duration busy_poll) {
  const RunScope scope(*this);
  if (busy_poll <= absl::ZeroDuration()) {
    context_->run();
    return;
  }
  const std::chrono::nanoseconds time =
      absl::ToChronoNanoseconds(std::min(busy_poll, kLongestDelay));
  while (!context_->stopped()) {
    if (!PollFor(time)) context_->run_one();
  }
}

bool EventLoop::PollFor(std::chrono::nanoseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  do {
    if (context_->poll() > 0) return true;
  } while (!context_->stopped() && std::chrono::steady_clock::now() < end);
  return false;
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

void Timer::Start(absl::Duration delay, std::function<void()> callback) {
  Cancel();
  // The clock cannot count to the end of an infinite delay.
  // One that was due before now would go before those that have waited for longer.
  delay = std::clamp(delay, absl::ZeroDuration(), kLongestDelay);
  due_ = LoopClock::now() + absl::ToChronoNanoseconds(delay);
  number_ = loop_.timers_->Add(due_, std::move(callback));
}

void Timer::Cancel() {
  if (number_ != 0) loop_.timers_->Remove(due_, std::exchange(number_, 0));
}

void DeferredTask::Post() {
  loop_.deferred_tasks_->Add(*this);
}

void DeferredTask::Cancel() {
  loop_.deferred_tasks_->Remove(*this);
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
