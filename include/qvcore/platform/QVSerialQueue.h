#pragma once

#include <functional>
#include <memory>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

// A worker thread running its own QVRunLoop: tasks run one at a time, in the
// order in which they were submitted. An exception that escapes a task ends
// the process through std::terminate, so the installed terminate handler
// sees it.
class QV_EXPORT QVSerialQueue {
 public:
  using Task = std::function<void()>;

  explicit QVSerialQueue(std::string label);
  // Lets the tasks already submitted finish, then ends the worker. Delayed
  // tasks and timers on the queue's loop are dropped. Dropping the last
  // reference from one of the queue's own tasks is allowed: the worker then
  // finishes on its own instead of being joined.
  ~QVSerialQueue();
  QVSerialQueue(const QVSerialQueue&) = delete;
  QVSerialQueue& operator=(const QVSerialQueue&) = delete;

  const std::string& label() const;

  void async(Task task);
  // Runs task on the queue and waits for it; its exception is rethrown here.
  // Called from the queue's own thread it runs task at once, since waiting
  // for itself would never end.
  void sync(const Task& task);

  bool isCurrent() const;
  // The worker's loop, for delayed tasks and timers on the queue's thread.
  QVRunLoop& runLoop();

 private:
  struct Worker;
  std::shared_ptr<Worker> worker_;
};

}  // namespace qv
