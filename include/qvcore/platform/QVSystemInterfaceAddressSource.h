#pragma once

#include <map>
#include <string>
#include <string_view>

#include "qvcore/platform/QVInterfaceAddressSource.h"

namespace qv {

// The system's interface addresses, from getifaddrs. The core looks for the
// interfaces by the names of the phones it was built for ("en0" for Wi-Fi,
// "pdp_ip0" for cellular data), so the host maps the names of its own
// interfaces onto those: with {"wlan0": "en0"} an entry of wlan0 is listed
// as en0. Names without a mapping are listed as the system gives them.
//
// Environment, read once at first use of the map:
//   QVCORE_INTERFACE_NAMES  the starting map, "wlan0=en0,wwan0=pdp_ip0"
// setInterfaceNameMap replaces what the environment gave.
class QV_EXPORT QVSystemInterfaceAddressSource : public QVInterfaceAddressSource {
 public:
  std::optional<std::vector<QVInterfaceAddress>> interfaceAddresses() override;

  static std::map<std::string, std::string> interfaceNameMap();
  static void setInterfaceNameMap(std::map<std::string, std::string> map);

  // The map written as "from=to" items separated by commas; blanks around
  // names are dropped, and items without both names are skipped.
  static std::map<std::string, std::string> parseInterfaceNameMap(std::string_view text);
};

}  // namespace qv
