#include "qvcore/platform/QVSerialQueue.h"

#include <exception>
#include <future>
#include <thread>

#if defined(__linux__)
#include <pthread.h>
#endif

namespace qv {
namespace {

void nameThisThread(const std::string& label) {
#if defined(__linux__)
  // The kernel keeps 15 characters; a label's end ("...qvcore.flush") tells
  // queues apart better than the bundle id at its start.
  constexpr size_t kLimit = 15;
  const std::string tail = label.size() > kLimit ? label.substr(label.size() - kLimit) : label;
  pthread_setname_np(pthread_self(), tail.c_str());
#else
  (void)label;
#endif
}

}  // namespace

// Shared by the queue and its thread, so that a thread left to finish on its
// own still has its loop.
struct QVSerialQueue::Worker {
  explicit Worker(std::string name) : label(std::move(name)) {}

  const std::string label;
  QVRunLoop loop;
  std::thread thread;
};

QVSerialQueue::QVSerialQueue(std::string label)
    : worker_(std::make_shared<Worker>(std::move(label))) {
  worker_->thread = std::thread([worker = worker_] {
    nameThisThread(worker->label);
    worker->loop.run();
  });
}

QVSerialQueue::~QVSerialQueue() {
  QVRunLoop* loop = &worker_->loop;
  // Queued behind every task already submitted, so those still run.
  loop->post([loop] { loop->stop(); });
  if (worker_->thread.get_id() == std::this_thread::get_id()) {
    worker_->thread.detach();
  } else {
    worker_->thread.join();
  }
}

const std::string& QVSerialQueue::label() const { return worker_->label; }

void QVSerialQueue::async(Task task) { worker_->loop.post(std::move(task)); }

void QVSerialQueue::sync(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  // The task holds the promise too, so the caller may return (and drop its
  // side) while the worker is still leaving set_value.
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  async([&task, done] {
    try {
      task();
      done->set_value();
    } catch (...) {
      done->set_exception(std::current_exception());
    }
  });
  finished.get();
}

bool QVSerialQueue::isCurrent() const { return worker_->loop.isCurrent(); }

QVRunLoop& QVSerialQueue::runLoop() { return worker_->loop; }

}  // namespace qv
