#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/platform/QVInterfaceAddressSource.h"

namespace qv::shell {

// The interface addresses the script states: at most one link, named as the
// core names Wi-Fi ("en0") or cellular data ("pdp_ip0"), up and running.
// The machine's own interfaces are never listed.
class QVShellAddressSource : public QVInterfaceAddressSource {
 public:
  std::optional<std::vector<QVInterfaceAddress>> interfaceAddresses() override;

  // The one address of link name, IPv4 or IPv6 text; none lists nothing.
  // Throws QVShellError for text that is not an address.
  void setAddress(const std::string& name, const std::optional<std::string>& text);

 private:
  std::mutex mutex_;
  std::vector<QVInterfaceAddress> entries_;  // guarded by mutex_
};

}  // namespace qv::shell
