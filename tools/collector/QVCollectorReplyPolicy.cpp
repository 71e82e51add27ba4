#include "QVCollectorReplyPolicy.h"

namespace qv::collector {

QVCollectorReplyPolicy::QVCollectorReplyPolicy(int status, int64_t failFirst,
                                               std::chrono::milliseconds delay)
    : status_(status), failFirst_(failFirst), delay_(delay) {}

int QVCollectorReplyPolicy::nextStatus() {
  const int64_t turn = answered_.fetch_add(1, std::memory_order_relaxed);
  return turn < failFirst_ ? 500 : status_;
}

}  // namespace qv::collector
