#include "qvcore/platform/QVReachabilitySource.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/host/QVReplaceableService.h"
#include "platform/net/QVNetlinkReachabilityTarget.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNetlinkReachabilitySource.h"

namespace qv {

namespace {

// A sandbox may refuse the kernel's routing socket. Without it no target
// could be watched and the core would refuse to enable, so reachability is
// left to the host instead, as on a platform whose host feeds it: not
// reachable until the host sets its flags.
std::shared_ptr<QVReachabilitySource> makeSystemSource() {
  const int error = netlinkWatchError();
  if (error == 0) return std::make_shared<QVNetlinkReachabilitySource>();
  QVLog::logFormat(
      "QVCore: the kernel's routing socket is refused (%s); reachability is the host's "
      "(QVHostReachabilitySource)",
      std::strerror(error));
  return std::make_shared<QVHostReachabilitySource>();
}

using Shared =
    QVReplaceableService<QVReachabilitySource, QVNetlinkReachabilitySource, &makeSystemSource>;

}  // namespace

QVReachabilitySource::~QVReachabilitySource() = default;

std::shared_ptr<QVReachabilitySource> QVReachabilitySource::shared() {
  return Shared::instance().get();
}

void QVReachabilitySource::setShared(std::shared_ptr<QVReachabilitySource> source) {
  Shared::instance().set(std::move(source));
}

}  // namespace qv
