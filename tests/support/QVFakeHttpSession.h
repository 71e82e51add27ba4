#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/platform/QVHttpSession.h"

namespace qv::test {

// A session that sends nothing: it records each task, and the test decides
// when and how the task ends. Install it with QVHttpSession::setShared.
class QVFakeHttpSession : public QVHttpSession {
 public:
  struct Task {
    bool upload = false;  // the cache fuzzer tells POSTs from GETs by it
    QVMutableURLRequest request{""};
    std::shared_ptr<const std::string> body;  // what an upload sends
    CompletionHandler completion;
  };

  void uploadTaskWithRequest(const QVMutableURLRequest& request,
                             std::shared_ptr<const std::string> body,
                             CompletionHandler completion) override {
    add(Task{true, request, std::move(body), std::move(completion)});
  }
  void dataTaskWithRequest(const QVMutableURLRequest& request,
                           CompletionHandler completion) override {
    add(Task{false, request, nullptr, std::move(completion)});
  }

  size_t taskCount() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
  }
  // Waits, with a generous bound, until count tasks were made.
  bool waitForTasks(size_t count) const {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, std::chrono::seconds(30), [&] { return tasks_.size() >= count; });
  }
  Task task(size_t index) const {
    std::lock_guard lock(mutex_);
    return tasks_.at(index);
  }
  // Ends the task with this status, as a session would, on the calling thread.
  void completeWithStatus(size_t index, long status) {
    CompletionHandler completion;
    {
      std::lock_guard lock(mutex_);
      completion = std::move(tasks_.at(index).completion);
    }
    QVHttpResponse response;
    response.statusCode = status;
    if (completion) completion(response, std::nullopt);
  }

 private:
  void add(Task task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    added_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<Task> tasks_;
};

}  // namespace qv::test
