#include "qvcore/platform/QVNetlinkReachabilitySource.h"

#include "platform/net/QVNetlinkReachabilityTarget.h"
#include "platform/net/QVNetlinkRoutes.h"

namespace qv {

std::unique_ptr<QVReachabilityTarget> QVNetlinkReachabilitySource::targetWithAddress(
    const sockaddr* address) {
  const auto destination = netlinkDestinationForAddress(address);
  if (!destination) return nullptr;
  return std::make_unique<QVNetlinkReachabilityTarget>(*destination);
}

std::unique_ptr<QVReachabilityTarget> QVNetlinkReachabilitySource::targetWithHostName(
    const std::string& name) {
  if (name.empty()) return nullptr;
  const auto destination = netlinkDestinationForNumericHost(name);
  return std::make_unique<QVNetlinkReachabilityTarget>(
      destination.value_or(netlinkInternetDestination()));
}

std::optional<std::string> QVNetlinkReachabilitySource::currentRadioAccessTechnology() {
  return std::nullopt;
}

}  // namespace qv
