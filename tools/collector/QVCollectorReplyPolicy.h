#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qv::collector {

// Which status each captured request is answered with, and after how long:
// 500 for the first failFirst requests, then the configured status. Safe to
// ask from the server's threads at once; each request takes one turn.
class QVCollectorReplyPolicy {
 public:
  QVCollectorReplyPolicy(int status = 200, int64_t failFirst = 0,
                         std::chrono::milliseconds delay = std::chrono::milliseconds(0));

  int nextStatus();
  std::chrono::milliseconds delay() const { return delay_; }

 private:
  const int status_;
  const int64_t failFirst_;
  const std::chrono::milliseconds delay_;
  std::atomic<int64_t> answered_{0};
};

}  // namespace qv::collector
