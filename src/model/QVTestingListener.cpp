#include "qvcore/model/QVTestingListener.h"

#include <utility>

#include "qvcore/model/QVTestingHelper.h"
#include "qvcore/platform/QVNotificationCenter.h"

namespace qv {

QVTestingListener::QVTestingListener() {
  QVNotificationCenter::defaultCenter().addObserver(
      this, QVTestingHelper::kJsonLoggingName, nullptr,
      [this](const QVNotification& notification) { handleJsonNotification(notification); });
}

std::shared_ptr<QVTestingListener> QVTestingListener::create() {
  return std::make_shared<QVTestingListener>();
}

QVTestingListener::~QVTestingListener() {
  QVNotificationCenter::defaultCenter().removeObserver(this, QVTestingHelper::kJsonLoggingName,
                                                       nullptr);
}

void QVTestingListener::handleJsonNotification(const QVNotification& notification) {
  const auto dictionary = QVTestingHelper::jsonDictionaryOfNotification(notification);
  if (!dictionary) return;
  std::lock_guard lock(mutex_);
  jsonMessages_.push_back(*dictionary);
}

std::vector<QVValue> QVTestingListener::getJsonStackWithFlush(bool flush) {
  std::lock_guard lock(mutex_);
  if (flush) return std::exchange(jsonMessages_, {});
  return jsonMessages_;
}

std::vector<QVValue> QVTestingListener::jsonMessages() const {
  std::lock_guard lock(mutex_);
  return jsonMessages_;
}

void QVTestingListener::setJsonMessages(std::vector<QVValue> jsonMessages) {
  std::lock_guard lock(mutex_);
  jsonMessages_ = std::move(jsonMessages);
}

}  // namespace qv
