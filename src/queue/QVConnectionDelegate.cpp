#include "qvcore/queue/QVConnectionDelegate.h"

namespace qv {

std::shared_ptr<QVMutableURLRequest> QVConnectionDelegate::beforeFlushingRequestForQueue(
    const std::shared_ptr<QVMutableURLRequest>&, const std::shared_ptr<QVQueue>&) {
  return nullptr;
}

}  // namespace qv
