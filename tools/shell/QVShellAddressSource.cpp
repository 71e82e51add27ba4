#include "QVShellAddressSource.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>

#include "QVShellError.h"

namespace qv::shell {
namespace {

// The bytes of the socket address, laid out as the system lays them out.
template <typename SocketAddress>
std::vector<uint8_t> bytesOf(const SocketAddress& address) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&address);
  return std::vector<uint8_t>(bytes, bytes + sizeof address);
}

QVInterfaceAddress entryFor(const std::string& name, const std::string& text) {
  QVInterfaceAddress entry;
  entry.name = name;
  entry.flags = IFF_UP | IFF_RUNNING;
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  if (::inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    entry.family = AF_INET;
    entry.address = bytesOf(v4);
  } else if (::inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    entry.family = AF_INET6;
    entry.address = bytesOf(v6);
  } else {
    throw QVShellError("address: not an IPv4 or IPv6 address: " + text);
  }
  return entry;
}

}  // namespace

std::optional<std::vector<QVInterfaceAddress>> QVShellAddressSource::interfaceAddresses() {
  std::lock_guard lock(mutex_);
  return entries_;
}

void QVShellAddressSource::setAddress(const std::string& name,
                                      const std::optional<std::string>& text) {
  std::vector<QVInterfaceAddress> entries;
  if (text) entries.push_back(entryFor(name, *text));
  std::lock_guard lock(mutex_);
  entries_ = std::move(entries);
}

}  // namespace qv::shell
