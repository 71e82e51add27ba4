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
    bool upload = false;
    QVMutableURLRequest request{""};
    std::shared_ptr<const std::string> body;  // what an upload sends
    CompletionHandler completion;
  };

  void uploadTaskWithRequest(const QVMutableURLRequest& request,
                             std::shared_ptr<const std::string> body,
                             CompletionHandler completion) override;
  void dataTaskWithRequest(const QVMutableURLRequest& request,
                           CompletionHandler completion) override;

  size_t taskCount() const;
  // Waits, with a generous bound, until count tasks were made.
  bool waitForTasks(size_t count) const;
  Task task(size_t index) const;
  // Ends the task as a session would, on the calling thread.
  void complete(size_t index, std::optional<QVHttpResponse> response,
                std::optional<QVHttpError> error = std::nullopt);
  void completeWithStatus(size_t index, long status);

 private:
  void add(Task task);

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<Task> tasks_;
};

}  // namespace qv::test
