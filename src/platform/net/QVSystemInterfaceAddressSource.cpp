#include "qvcore/platform/QVSystemInterfaceAddressSource.h"

#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/net/QVNetlinkRoutes.h"
#include "platform/value/QVText.h"

namespace qv {

namespace {

// Never destroyed, as the shared source is not.
struct NameMapSettings {
  std::mutex mutex;
  bool environmentRead = false;
  std::map<std::string, std::string> map;
};

NameMapSettings& lockedNameMap(std::unique_lock<std::mutex>& lock) {
  static auto* settings = new NameMapSettings;
  lock = std::unique_lock(settings->mutex);
  if (!settings->environmentRead) {
    settings->environmentRead = true;
    if (const char* text = std::getenv("QVCORE_INTERFACE_NAMES")) {
      settings->map = QVSystemInterfaceAddressSource::parseInterfaceNameMap(text);
    }
  }
  return *settings;
}

std::vector<uint8_t> addressBytes(const sockaddr* address) {
  if (!address) return {};
  std::size_t size = 0;
  if (address->sa_family == AF_INET) size = sizeof(sockaddr_in);
  if (address->sa_family == AF_INET6) size = sizeof(sockaddr_in6);
  const auto* bytes = reinterpret_cast<const uint8_t*>(address);
  return std::vector<uint8_t>(bytes, bytes + size);
}

QVInterfaceAddress entryOf(const ifaddrs& entry, const std::map<std::string, std::string>& names) {
  QVInterfaceAddress result;
  result.name = entry.ifa_name ? entry.ifa_name : "";
  if (auto renamed = names.find(result.name); renamed != names.end()) {
    result.name = renamed->second;
  }
  result.flags = entry.ifa_flags;
  result.family = entry.ifa_addr ? entry.ifa_addr->sa_family : AF_UNSPEC;
  result.address = addressBytes(entry.ifa_addr);
  return result;
}

// The names the core knows given to the link that carries the route to the
// internet, asked anew at every listing, as that route moves between links.
std::map<std::string, std::string> namesByRoute() {
  const auto link = netlinkInternetLink();
  if (!link || link->name.empty()) return {};
  return {{link->name, netlinkLinkIsCellular(*link) ? "pdp_ip0" : "en0"}};
}

}  // namespace

std::optional<std::vector<QVInterfaceAddress>>
QVSystemInterfaceAddressSource::interfaceAddresses() {
  std::map<std::string, std::string> names = interfaceNameMap();
  if (names.empty()) names = namesByRoute();
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return std::nullopt;
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(first, &::freeifaddrs);
  std::vector<QVInterfaceAddress> entries;
  for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
    entries.push_back(entryOf(*entry, names));
  }
  return entries;
}

std::map<std::string, std::string> QVSystemInterfaceAddressSource::interfaceNameMap() {
  std::unique_lock<std::mutex> lock;
  return lockedNameMap(lock).map;
}

void QVSystemInterfaceAddressSource::setInterfaceNameMap(std::map<std::string, std::string> map) {
  std::unique_lock<std::mutex> lock;
  lockedNameMap(lock).map = std::move(map);
}

std::map<std::string, std::string> QVSystemInterfaceAddressSource::parseInterfaceNameMap(
    std::string_view text) {
  std::map<std::string, std::string> map;
  while (!text.empty()) {
    const auto comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    const auto equals = item.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view from = QVText::trimmed(item.substr(0, equals), " \t");
    const std::string_view to = QVText::trimmed(item.substr(equals + 1), " \t");
    if (!from.empty() && !to.empty()) map[std::string(from)] = std::string(to);
  }
  return map;
}

}  // namespace qv
