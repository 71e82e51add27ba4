#include "qvcore/platform/QVReachabilitySource.h"

#include <utility>

#include "platform/QVReplaceableService.h"
#include "qvcore/platform/QVNetlinkReachabilitySource.h"

namespace qv {

namespace {
using Shared = QVReplaceableService<QVReachabilitySource, QVNetlinkReachabilitySource>;
}  // namespace

QVReachabilitySource::~QVReachabilitySource() = default;

std::shared_ptr<QVReachabilitySource> QVReachabilitySource::shared() {
  return Shared::instance().get();
}

void QVReachabilitySource::setShared(std::shared_ptr<QVReachabilitySource> source) {
  Shared::instance().set(std::move(source));
}

}  // namespace qv
