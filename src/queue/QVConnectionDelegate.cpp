#include "qvcore/queue/QVConnectionDelegate.h"

namespace qv {

void QVConnectionDelegate::flushRejectedForQueue(const std::shared_ptr<QVQueue>& queue,
                                                 const std::string&) {
  flushFailedForQueue(queue);
}

std::shared_ptr<QVMutableURLRequest> QVConnectionDelegate::beforeFlushingRequestForQueue(
    const std::shared_ptr<QVMutableURLRequest>&, const std::shared_ptr<QVQueue>&) {
  return nullptr;
}

}  // namespace qv
