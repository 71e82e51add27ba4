#include "support/QVFakeHttpSession.h"

namespace qv::test {

void QVFakeHttpSession::uploadTaskWithRequest(const QVMutableURLRequest& request,
                                              std::shared_ptr<const std::string> body,
                                              CompletionHandler completion) {
  add(Task{true, request, std::move(body), std::move(completion)});
}

void QVFakeHttpSession::dataTaskWithRequest(const QVMutableURLRequest& request,
                                            CompletionHandler completion) {
  add(Task{false, request, nullptr, std::move(completion)});
}

void QVFakeHttpSession::add(Task task) {
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
  added_.notify_all();
}

size_t QVFakeHttpSession::taskCount() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}

bool QVFakeHttpSession::waitForTasks(size_t count) const {
  std::unique_lock lock(mutex_);
  return added_.wait_for(lock, std::chrono::seconds(30), [&] { return tasks_.size() >= count; });
}

QVFakeHttpSession::Task QVFakeHttpSession::task(size_t index) const {
  std::lock_guard lock(mutex_);
  return tasks_.at(index);
}

void QVFakeHttpSession::complete(size_t index, std::optional<QVHttpResponse> response,
                                 std::optional<QVHttpError> error) {
  CompletionHandler completion;
  {
    std::lock_guard lock(mutex_);
    completion = std::move(tasks_.at(index).completion);
  }
  if (completion) completion(std::move(response), std::move(error));
}

void QVFakeHttpSession::completeWithStatus(size_t index, long status) {
  QVHttpResponse response;
  response.statusCode = status;
  complete(index, response);
}

}  // namespace qv::test
