#pragma once

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVReachabilitySource.h"

namespace qv {

// Reachability from the Linux kernel's routing interface (rtnetlink). The
// flags of an address are those of the route that the kernel would take to
// it: Reachable when the route leads over a link that is up and running
// (never loopback, except for an address of this machine), IsDirect when the
// route has no gateway, IsWWAN when the link is a cellular modem's (named
// wwan*, rmnet* or ccmni*, of kind wwan or rmnet, a raw IP link, or of
// device type wwan in sysfs). The internet is asked about through a public
// address, 1.1.1.1, and when that leads nowhere 2606:4700:4700::1111 (or the
// other way round for ::), so a machine with an IPv6 default route alone
// reaches it; a route lookup sends nothing. Host names are
// never resolved, as that would send queries off the machine: a name that is
// an address in text is that address, any other name stands for the internet.
// Linux knows no radio access technology.
class QV_EXPORT QVNetlinkReachabilitySource final : public QVReachabilitySource {
 public:
  std::unique_ptr<QVReachabilityTarget> targetWithAddress(const sockaddr* address) override;
  std::unique_ptr<QVReachabilityTarget> targetWithHostName(const std::string& name) override;
  std::optional<std::string> currentRadioAccessTechnology() override;
};

}  // namespace qv
