#include "qvcore/platform/QVInterfaceAddressSource.h"

#include <mutex>

#include "qvcore/platform/QVSystemInterfaceAddressSource.h"

namespace qv {

namespace {

// Never destroyed: the environment service may ask for addresses while the
// process exits.
struct SharedSource {
  std::mutex mutex;
  std::shared_ptr<QVInterfaceAddressSource> chosen;
  std::shared_ptr<QVInterfaceAddressSource> system;
};

SharedSource& sharedSource() {
  static auto* shared = new SharedSource;
  return *shared;
}

}  // namespace

QVInterfaceAddressSource::~QVInterfaceAddressSource() = default;

std::shared_ptr<QVInterfaceAddressSource> QVInterfaceAddressSource::shared() {
  SharedSource& shared = sharedSource();
  std::lock_guard lock(shared.mutex);
  if (shared.chosen) return shared.chosen;
  if (!shared.system) shared.system = std::make_shared<QVSystemInterfaceAddressSource>();
  return shared.system;
}

void QVInterfaceAddressSource::setShared(std::shared_ptr<QVInterfaceAddressSource> source) {
  SharedSource& shared = sharedSource();
  std::lock_guard lock(shared.mutex);
  shared.chosen = std::move(source);
}

}  // namespace qv
