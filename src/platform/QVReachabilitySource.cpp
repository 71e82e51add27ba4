#include "qvcore/platform/QVReachabilitySource.h"

#include <mutex>

#include "qvcore/platform/QVNetlinkReachabilitySource.h"

namespace qv {
namespace {

// Never destroyed: the network manager may ask while the process exits.
struct SharedSource {
  std::mutex mutex;
  std::shared_ptr<QVReachabilitySource> chosen;
  std::shared_ptr<QVReachabilitySource> netlink;
};

SharedSource& sharedSource() {
  static auto* shared = new SharedSource;
  return *shared;
}

}  // namespace

QVReachabilitySource::~QVReachabilitySource() = default;

std::shared_ptr<QVReachabilitySource> QVReachabilitySource::shared() {
  SharedSource& shared = sharedSource();
  std::lock_guard lock(shared.mutex);
  if (shared.chosen) return shared.chosen;
  if (!shared.netlink) shared.netlink = std::make_shared<QVNetlinkReachabilitySource>();
  return shared.netlink;
}

void QVReachabilitySource::setShared(std::shared_ptr<QVReachabilitySource> source) {
  SharedSource& shared = sharedSource();
  std::lock_guard lock(shared.mutex);
  shared.chosen = std::move(source);
}

}  // namespace qv
