#include "qvcore/platform/QVNetServiceBrowser.h"

#include <utility>

namespace qv {

QVNetServiceBrowser::~QVNetServiceBrowser() = default;

void QVNetServiceBrowser::setDelegate(std::weak_ptr<QVNetServiceBrowserDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<QVNetServiceBrowserDelegate> QVNetServiceBrowser::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

}  // namespace qv
