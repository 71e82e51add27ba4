#include "qvcore/platform/QVServiceDiscovery.h"

#include <mutex>
#include <utility>

#include "platform/QVAvahiServiceDiscovery.h"

namespace qv {

namespace {

// Never destroyed: a browser found late in the process's exit still needs
// its discovery.
struct SharedDiscovery {
  std::mutex mutex;
  std::shared_ptr<QVServiceDiscovery> chosen;
  std::shared_ptr<QVServiceDiscovery> avahi;
};

SharedDiscovery& sharedDiscovery() {
  static auto* shared = new SharedDiscovery;
  return *shared;
}

}  // namespace

QVServiceDiscovery::~QVServiceDiscovery() = default;

std::shared_ptr<QVServiceDiscovery> QVServiceDiscovery::shared() {
  SharedDiscovery& shared = sharedDiscovery();
  std::lock_guard lock(shared.mutex);
  if (shared.chosen) return shared.chosen;
  if (!shared.avahi) shared.avahi = std::make_shared<QVAvahiServiceDiscovery>();
  return shared.avahi;
}

void QVServiceDiscovery::setShared(std::shared_ptr<QVServiceDiscovery> discovery) {
  SharedDiscovery& shared = sharedDiscovery();
  std::lock_guard lock(shared.mutex);
  shared.chosen = std::move(discovery);
}

}  // namespace qv
