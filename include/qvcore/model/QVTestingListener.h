#pragma once

#include <memory>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVNotification.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The receiving side of the JSON test log (see QVTestingHelper): a host's
// test creates one, lets the core run, and takes the dictionaries of the
// logged messages, oldest first. Nothing in the core creates a listener.
// Callable from any thread; the notifications arrive on the main run loop.
class QV_EXPORT QVTestingListener {
 public:
  // Starts listening to the log, from any sender.
  QVTestingListener();
  static std::shared_ptr<QVTestingListener> create();
  // Stops listening; returns once no delivery to this listener is under way.
  ~QVTestingListener();
  QVTestingListener(const QVTestingListener&) = delete;
  QVTestingListener& operator=(const QVTestingListener&) = delete;

  // Appends the dictionary that the notification carries; a notification
  // without one is ignored.
  void handleJsonNotification(const QVNotification& notification);

  // A copy of the dictionaries collected so far; with flush, the listener
  // forgets them afterwards, in the same step.
  std::vector<QVValue> getJsonStackWithFlush(bool flush);

  std::vector<QVValue> jsonMessages() const;
  void setJsonMessages(std::vector<QVValue> jsonMessages);

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
