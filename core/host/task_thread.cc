#include "core/host/task_thread.h"

#include <pthread.h>
#include <signal.h>

namespace varnic::host {
namespace {

// A new thread starts with the signal mask of the one that makes it.
std::thread StartWithoutSignals(std::function<void()> run) {
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  std::thread thread(std::move(run));
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return thread;
}

}  // namespace

TaskThread::TaskThread(PostFunction post) : post_(std::move(post)) {
  thread_ = StartWithoutSignals([this] { RunTasks(); });
  pthread_setname_np(thread_.native_handle(), "varnic-files");
}

TaskThread::~TaskThread() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_ending_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void TaskThread::Add(std::function<void()> task) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  changed_.notify_one();
}

void TaskThread::RunTasks() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return is_ending_ || !tasks_.empty(); });
    if (tasks_.empty()) return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // What it captured is let go of without the lock.
    lock.lock();
  }
}

}  // namespace varnic::host
