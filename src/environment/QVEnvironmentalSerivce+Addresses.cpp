// The device's own network addresses, from the interface list.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <exception>

#include "environment/QVEnvironmentalSerivceImpl.h"
#include "platform/host/QVSwallowed.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/platform/QVInterfaceAddressSource.h"

namespace qv {

namespace {

const char* const kUnknownAddress = "Unknown";
const char* const kWiFiInterface = "en0";

// Bytes are converted from four bytes into the socket address for both
// families. For IPv4 that is the address; for IPv6 it is the flow
// information and the first twelve bytes of the address, so IPv6 texts do
// not name the interface's real address. Kept that way on purpose.
constexpr size_t kAddressOffset = 4;

std::optional<std::string> addressText(const QVInterfaceAddress& entry) {
  const size_t needed = kAddressOffset + (entry.family == AF_INET ? 4 : 16);
  if (entry.address.size() < needed) return std::nullopt;
  char text[INET6_ADDRSTRLEN];
  if (!inet_ntop(entry.family, entry.address.data() + kAddressOffset, text, sizeof text)) {
    return std::nullopt;
  }
  return std::string(text);
}

bool isUpAndNotLoopback(const QVInterfaceAddress& entry) {
  return (entry.flags & (IFF_UP | IFF_LOOPBACK)) == IFF_UP;
}

}  // namespace

std::optional<QVValue> QVEnvironmentalSerivce::getIPAddressesDict() const {
  QVValue addresses = QVValue::object();
  if (auto entries = QVInterfaceAddressSource::shared()->interfaceAddresses()) {
    for (const auto& entry : *entries) {
      if (!isUpAndNotLoopback(entry) || entry.address.empty()) continue;
      if (entry.family != AF_INET && entry.family != AF_INET6) continue;
      auto text = addressText(entry);
      if (!text) continue;
      // A later address of the same interface and family replaces the earlier.
      addresses[entry.name + (entry.family == AF_INET ? "/ipv4" : "/ipv6")] = *text;
    }
  }
  if (addresses.empty()) return std::nullopt;
  return addresses;
}

// Looked up once per process; a later network change does not refresh it.
// "Unknown" is not kept, so the next call looks again.
std::string QVEnvironmentalSerivce::networkIPAddress() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->networkIPAddressStr && *impl_->networkIPAddressStr != kUnknownAddress) {
      return *impl_->networkIPAddressStr;
    }
  }
  std::string found = kUnknownAddress;
  if (auto addresses = getIPAddressesDict()) {
    for (const char* key : {"en0/ipv4", "en0/ipv6", "pdp_ip0/ipv4", "pdp_ip0/ipv6"}) {
      auto it = addresses->find(key);
      if (it != addresses->end()) {
        found = it->get<std::string>();
        break;
      }
    }
  }
  std::lock_guard lock(impl_->mutex);
  impl_->networkIPAddressStr = found;
  return found;
}

// Every IPv4 address of the Wi-Fi interface counts, up or down; the last
// one listed wins.
std::string QVEnvironmentalSerivce::networkWiFiIPAddress() const {
  std::string result;
  try {
    auto entries = QVInterfaceAddressSource::shared()->interfaceAddresses();
    if (!entries) return result;
    for (const auto& entry : *entries) {
      if (entry.family != AF_INET || entry.name != kWiFiInterface) continue;
      if (entry.address.size() < sizeof(sockaddr_in)) continue;
      sockaddr_in address{};
      std::copy_n(entry.address.data(), sizeof address, reinterpret_cast<uint8_t*>(&address));
      char text[INET_ADDRSTRLEN];
      if (inet_ntop(AF_INET, &address.sin_addr, text, sizeof text)) result = text;
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
  return result;
}

}  // namespace qv
