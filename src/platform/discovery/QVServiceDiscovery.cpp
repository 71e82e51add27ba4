#include "qvcore/platform/QVServiceDiscovery.h"

#include <utility>

#include "platform/discovery/QVAvahiServiceDiscovery.h"
#include "platform/host/QVReplaceableService.h"

namespace qv {

namespace {
using Shared = QVReplaceableService<QVServiceDiscovery, QVAvahiServiceDiscovery>;
}  // namespace

QVServiceDiscovery::~QVServiceDiscovery() = default;

std::shared_ptr<QVServiceDiscovery> QVServiceDiscovery::shared() {
  return Shared::instance().get();
}

void QVServiceDiscovery::setShared(std::shared_ptr<QVServiceDiscovery> discovery) {
  Shared::instance().set(std::move(discovery));
}

}  // namespace qv
