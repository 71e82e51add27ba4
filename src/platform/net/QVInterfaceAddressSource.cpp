#include "qvcore/platform/QVInterfaceAddressSource.h"

#include <utility>

#include "platform/host/QVReplaceableService.h"
#include "qvcore/platform/QVSystemInterfaceAddressSource.h"

namespace qv {

namespace {
using Shared = QVReplaceableService<QVInterfaceAddressSource, QVSystemInterfaceAddressSource>;
}  // namespace

QVInterfaceAddressSource::~QVInterfaceAddressSource() = default;

std::shared_ptr<QVInterfaceAddressSource> QVInterfaceAddressSource::shared() {
  return Shared::instance().get();
}

void QVInterfaceAddressSource::setShared(std::shared_ptr<QVInterfaceAddressSource> source) {
  Shared::instance().set(std::move(source));
}

}  // namespace qv
