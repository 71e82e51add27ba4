#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qv {

// The background tasks an application has begun and not ended yet, each with
// its name and expiration handler. Identifiers start at 1 and are never
// reused, so 0 stays the invalid identifier. Safe from any thread; handlers
// run without the lock held.
class QVBackgroundTaskList {
 public:
  using Identifier = uint64_t;
  using Handler = std::function<void()>;

  Identifier begin(std::string name, Handler expirationHandler);
  // Unknown and already ended identifiers are ignored.
  void end(Identifier id);
  std::vector<std::string> names() const;
  // Runs the expiration handler of every task that is live now and has not
  // expired before, oldest first, each at most once. A task ended by an
  // earlier handler of the same call is skipped.
  void expireAll();

 private:
  struct Task {
    std::string name;
    Handler expirationHandler;
    bool expired = false;
  };

  // The handler of a live, unexpired task, marked expired; null otherwise.
  Handler takeForExpiry(Identifier id);

  mutable std::mutex mutex_;
  Identifier nextId_ = 1;
  std::map<Identifier, Task> tasks_;
};

}  // namespace qv
