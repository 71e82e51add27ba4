#pragma once

#include <sys/socket.h>

#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVReachabilityTarget.h"

namespace qv {

// Where the core learns whether, and over what kind of link, the device can
// reach the network. Linux answers from the kernel's routes and links
// (QVNetlinkReachabilitySource); a host that knows better, or a test, sets
// the answers itself (QVHostReachabilitySource). Every operation is safe from
// any thread.
class QV_EXPORT QVReachabilitySource {
 public:
  virtual ~QVReachabilitySource();

  // A target for an IPv4 or IPv6 socket address (0.0.0.0 or :: stands for
  // the internet at large); null when it cannot be made.
  virtual std::unique_ptr<QVReachabilityTarget> targetWithAddress(const sockaddr* address) = 0;
  // A target for a host name; null when it cannot be made.
  virtual std::unique_ptr<QVReachabilityTarget> targetWithHostName(const std::string& name) = 0;

  // The cellular radio in use, named after the platform's constant
  // ("CTRadioAccessTechnologyLTE"); none when there is none or it is unknown.
  virtual std::optional<std::string> currentRadioAccessTechnology() = 0;

  // The source that the core uses: the one set, else the netlink one, made
  // on first use. Where the kernel refuses netlink sockets (some sandboxes),
  // a QVHostReachabilitySource is made instead, with one log line: not
  // reachable until the host sets its flags.
  static std::shared_ptr<QVReachabilitySource> shared();
  // A null source goes back to the netlink one.
  static void setShared(std::shared_ptr<QVReachabilitySource> source);
};

}  // namespace qv
