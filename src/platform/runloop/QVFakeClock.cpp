#include "qvcore/platform/QVFakeClock.h"

#include <vector>

namespace qv {

QVFakeClock::QVFakeClock(TimePoint start) : now_(start) {}

QVClock::TimePoint QVFakeClock::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

bool QVFakeClock::isSteady() const { return false; }

QVClock::ListenerId QVFakeClock::addListener(Listener listener) {
  std::lock_guard lock(mutex_);
  const ListenerId id = nextId_++;
  listeners_.emplace(id, std::make_shared<const Listener>(std::move(listener)));
  return id;
}

void QVFakeClock::removeListener(ListenerId id) {
  std::shared_ptr<const Listener> removed;
  std::lock_guard lock(mutex_);
  auto it = listeners_.find(id);
  if (it == listeners_.end()) return;
  removed = std::move(it->second);
  listeners_.erase(it);
}

void QVFakeClock::advance(Duration step) {
  if (step <= Duration::zero()) return;
  std::vector<std::shared_ptr<const Listener>> toCall;
  {
    std::lock_guard lock(mutex_);
    now_ += step;
    for (const auto& entry : listeners_) toCall.push_back(entry.second);
  }
  // Outside the lock: a listener may read the time or remove itself.
  for (const auto& listener : toCall) (*listener)();
}

}  // namespace qv
