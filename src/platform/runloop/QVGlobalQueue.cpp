#include "qvcore/platform/QVGlobalQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/host/QVSwallowed.h"

namespace qv {

namespace {

// Workers as the machine's hardware threads, at least 2 and at most 8.
size_t maxWorkers() { return std::clamp<size_t>(std::thread::hardware_concurrency(), 2, 8); }

// Never destroyed: its workers are never joined and may still be waiting for
// work while the process exits.
class Pool {
 public:
  static Pool& shared() {
    static auto* pool = new Pool;
    return *pool;
  }

  void submit(QVGlobalQueue::Task task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    ready_.notify_one();
    // A new worker only when the idle ones cannot take every waiting task, so
    // that a burst of short tasks does not start a thread each.
    if (idle_ < tasks_.size() && workers_ < maxWorkers()) startWorker();
  }

 private:
  // The caller holds mutex_. Without a new thread the task waits for a
  // worker that is already there.
  void startWorker() {
    try {
      std::thread([this] { work(); }).detach();
      ++workers_;
    } catch (const std::system_error& e) {
      noteSwallowed(__func__, e);
    }
  }

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      ready_.wait(lock, [this] { return !tasks_.empty(); });
      --idle_;
      QVGlobalQueue::Task task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      task = nullptr;  // its captures go before the lock is taken again
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<QVGlobalQueue::Task> tasks_;
  size_t workers_ = 0;
  size_t idle_ = 0;
};

}  // namespace

void QVGlobalQueue::async(Task task) {
  if (task) Pool::shared().submit(std::move(task));
}

}  // namespace qv
