#include "qvcore/model/QVTestingListener.h"

#include <mutex>
#include <utility>

#include "qvcore/model/QVTestingHelper.h"
#include "qvcore/platform/QVNotificationCenter.h"

namespace qv {

struct QVTestingListener::Impl {
  mutable std::mutex mutex_;
  std::vector<QVValue> jsonMessages_;
};

QVTestingListener::QVTestingListener() : impl_(std::make_unique<Impl>()) {
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
  std::lock_guard lock(impl_->mutex_);
  impl_->jsonMessages_.push_back(*dictionary);
}

std::vector<QVValue> QVTestingListener::getJsonStackWithFlush(bool flush) {
  std::lock_guard lock(impl_->mutex_);
  if (flush) return std::exchange(impl_->jsonMessages_, {});
  return impl_->jsonMessages_;
}

std::vector<QVValue> QVTestingListener::jsonMessages() const {
  std::lock_guard lock(impl_->mutex_);
  return impl_->jsonMessages_;
}

void QVTestingListener::setJsonMessages(std::vector<QVValue> jsonMessages) {
  std::lock_guard lock(impl_->mutex_);
  impl_->jsonMessages_ = std::move(jsonMessages);
}

}  // namespace qv
