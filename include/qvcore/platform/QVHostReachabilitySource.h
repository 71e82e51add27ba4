#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVReachabilitySource.h"

namespace qv {

// Reachability as the host says it is. A host that knows the device's network
// better than Linux does (a phone's own reachability service, a simulator)
// installs one with QVReachabilitySource::setShared and hands over each new
// flag word and radio technology; tests use it to make the network change on
// demand. Every target, whatever its address or name, answers the one flag
// word set here: the host knows the device's state, not per-address routes,
// so the local Wi-Fi target reads it too. Each call of a setter is an event
// that every scheduled target hears, posted onto its loop, even when the
// value did not change. Starts with flags 0 and no radio technology. Every
// operation is safe from any thread.
class QV_EXPORT QVHostReachabilitySource final : public QVReachabilitySource {
 public:
  QVHostReachabilitySource();
  ~QVHostReachabilitySource() override;

  // Null while setFailsToCreateTargets(true), or for an address that is
  // neither IPv4 nor IPv6.
  std::unique_ptr<QVReachabilityTarget> targetWithAddress(const sockaddr* address) override;
  std::unique_ptr<QVReachabilityTarget> targetWithHostName(const std::string& name) override;
  std::optional<std::string> currentRadioAccessTechnology() override;

  // The flag word of every target; none makes the flags unreadable.
  void setFlags(std::optional<uint32_t> flags);
  void setRadioAccessTechnology(std::optional<std::string> technology);

  // Failures on demand, for the paths that real platforms take rarely.
  void setFailsToCreateTargets(bool fails);
  void setFailsToSchedule(bool fails);

  // How many targets are scheduled right now.
  size_t scheduledTargetCount() const;

 private:
  struct State;
  class Target;

  std::unique_ptr<QVReachabilityTarget> makeTarget();
  void announce();

  std::shared_ptr<State> state_;
};

}  // namespace qv
