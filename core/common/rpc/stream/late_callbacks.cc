#include "core/common/rpc/stream/late_callbacks.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <utility>

namespace varnic {

struct LateCallbacks::Queue {
  // Those that wait now: the next turn is for what they add. A callback may have run them itself.
  void RunTurn() {
    is_posted = false;
    for (std::size_t left = callbacks.size(); left > 0 && !callbacks.empty(); --left) {
      const std::function<void()> callback = std::move(callbacks.front());
      callbacks.pop_front();
      callback();
    }
  }

  std::deque<std::function<void()>> callbacks;
  bool is_posted = false;
};

LateCallbacks::LateCallbacks(Scheduler& scheduler)
    : scheduler_(scheduler), queue_(std::make_shared<Queue>()) {}
LateCallbacks::~LateCallbacks() {
  queue_->callbacks.clear();
}

void LateCallbacks::Add(std::function<void()> callback) {
  queue_->callbacks.push_back(std::move(callback));
  if (std::exchange(queue_->is_posted, true)) return;
  scheduler_.Post([weak = std::weak_ptr<Queue>(queue_)] {
    if (const auto queue = weak.lock()) queue->RunTurn();
  });
}

void LateCallbacks::RunAll() {
  const std::shared_ptr<Queue> queue = queue_;
  while (!queue->callbacks.empty()) queue->RunTurn();
}

}  // namespace varnic
