#ifndef CORE_HOST_TASK_THREAD_H_
#define CORE_HOST_TASK_THREAD_H_

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace varnic::host {

// A thread for work that blocks, on behalf of a thread that must not: one task at a time, in the
// order given. What a task found goes back to the owner's thread.
//
// The destructor waits for the tasks that were given, and hands over their results; it must not run
// on the thread itself. The thread blocks every signal, so that those meant for the process reach
// the threads that expect them. Tools such as top show it as "varnic-files".
class TaskThread {
 public:
  // Runs a function on the owner's thread, later; called on ours. A function that it drops takes a
  // result with it, and nothing else is lost.
  using PostFunction = std::function<void(std::function<void()>)>;

  explicit TaskThread(PostFunction post);
  TaskThread(const TaskThread&) = delete;
  TaskThread& operator=(const TaskThread&) = delete;
  ~TaskThread();

  // Runs `work()` on this thread, and then `then(result)` on the owner's, unless that is gone by
  // then. Any thread but this one.
  template <typename Work, typename Then>
  void Run(Work work, Then then) {
    Add([this, work = std::move(work), then = std::move(then)]() mutable {
      post_([then = std::move(then), result = work()]() mutable { then(std::move(result)); });
    });
  }

 private:
  void Add(std::function<void()> task);
  void RunTasks();

  const PostFunction post_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;  // Guarded by mutex_.
  bool is_ending_ = false;                   // Guarded by mutex_.
  std::thread thread_;                       // Last: uses all of the above.
};

}  // namespace varnic::host

#endif  // CORE_HOST_TASK_THREAD_H_
