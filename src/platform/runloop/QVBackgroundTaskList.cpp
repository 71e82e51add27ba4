#include "platform/runloop/QVBackgroundTaskList.h"

#include <utility>

namespace qv {

QVBackgroundTaskList::Identifier QVBackgroundTaskList::begin(std::string name,
                                                             Handler expirationHandler) {
  std::lock_guard lock(mutex_);
  const Identifier id = nextId_++;
  tasks_.emplace(id, Task{std::move(name), std::move(expirationHandler)});
  return id;
}

void QVBackgroundTaskList::end(Identifier id) {
  Handler released;
  {
    std::lock_guard lock(mutex_);
    auto it = tasks_.find(id);
    if (it == tasks_.end()) return;
    released = std::move(it->second.expirationHandler);
    tasks_.erase(it);
  }
  // The handler's captures may own anything, even the caller; they go
  // outside the lock.
}

std::vector<std::string> QVBackgroundTaskList::names() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& entry : tasks_) names.push_back(entry.second.name);
  return names;
}

void QVBackgroundTaskList::expireAll() {
  std::vector<Identifier> live;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : tasks_) live.push_back(entry.first);
  }
  for (Identifier id : live) {
    // A copy runs, so a handler may end its own task (which drops the stored
    // handler) while it is running.
    if (Handler handler = takeForExpiry(id)) handler();
  }
}

QVBackgroundTaskList::Handler QVBackgroundTaskList::takeForExpiry(Identifier id) {
  std::lock_guard lock(mutex_);
  auto it = tasks_.find(id);
  if (it == tasks_.end() || it->second.expired) return nullptr;
  it->second.expired = true;
  return it->second.expirationHandler;
}

}  // namespace qv
