#pragma once

#include <map>
#include <string>
#include <string_view>

#include "qvcore/platform/QVInterfaceAddressSource.h"

namespace qv {

// The system's interface addresses, from getifaddrs. The core looks for the
// interfaces by the names of the phones it was built for ("en0" for Wi-Fi,
// "pdp_ip0" for cellular data), so each entry's name is mapped onto those.
//
// With no map set, the link that carries the route to the internet (the
// kernel's route to a public address, IPv4 first, else IPv6) is listed as
// "pdp_ip0" when it is a cellular modem's and as "en0" otherwise, whatever
// the system calls it (eth0, enp3s0, wlan0, ...); every other entry keeps
// its own name. A machine without such a route lists every name as it is.
//
// A map replaces that naming whole: with {"wlan0": "en0"} an entry of wlan0
// is listed as en0, and names without a mapping are listed as the system
// gives them, whichever link carries the route.
//
// Environment, read once at first use of the map:
//   QVCORE_INTERFACE_NAMES  the starting map, "wlan0=en0,wwan0=pdp_ip0";
//                           unset, empty or without a valid item: no map
// setInterfaceNameMap replaces what the environment gave; an empty map goes
// back to naming by the route.
class QV_EXPORT QVSystemInterfaceAddressSource : public QVInterfaceAddressSource {
 public:
  std::optional<std::vector<QVInterfaceAddress>> interfaceAddresses() override;

  static void setInterfaceNameMap(std::map<std::string, std::string> map);

  // The map written as "from=to" items separated by commas; blanks around
  // names are dropped, and items without both names are skipped.
  static std::map<std::string, std::string> parseInterfaceNameMap(std::string_view text);

 private:
  static std::map<std::string, std::string> interfaceNameMap();
};

}  // namespace qv
