#include "qvcore/platform/QVNetService.h"

#include <cstdio>
#include <utility>

namespace qv {

QVNetService::~QVNetService() = default;

void QVNetService::setDelegate(std::weak_ptr<QVNetServiceDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<QVNetServiceDelegate> QVNetService::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

std::string QVNetService::description() const { return describe("QVNetService"); }

std::string QVNetService::describe(const char* className) const {
  char address[64];
  std::snprintf(address, sizeof address, "<%s: %p>", className, static_cast<const void*>(this));
  return std::string(address) + " " + domain() + " " + type() + " " + name();
}

}  // namespace qv
