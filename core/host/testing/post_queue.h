#ifndef CORE_HOST_TESTING_POST_QUEUE_H_
#define CORE_HOST_TESTING_POST_QUEUE_H_

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <utility>

namespace varnic::host::testing {

// Stands for the loop of the RPC thread: keeps what any thread posts until the test runs it.
class PostQueue {
 public:
  // The queue must outlive every copy of the result.
  std::function<void(std::function<void()>)> AsPost() {
    return [this](std::function<void()> function) {
      const std::lock_guard<std::mutex> lock(mutex_);
      functions_.push_back(std::move(function));
      changed_.notify_one();
    };
  }

  // Waits for a function to be posted, and runs it.
  void RunNext() {
    std::function<void()> next;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return !functions_.empty(); });
      next = std::move(functions_.front());
      functions_.pop_front();
    }
    next();
  }

  size_t size() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return functions_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> functions_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_POST_QUEUE_H_
