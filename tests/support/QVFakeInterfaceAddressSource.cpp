#include "support/QVFakeInterfaceAddressSource.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace qv::test {

namespace {

template <typename SocketAddress>
std::vector<uint8_t> bytesOf(const SocketAddress& address) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&address);
  return std::vector<uint8_t>(bytes, bytes + sizeof address);
}

}  // namespace

std::optional<std::vector<QVInterfaceAddress>> QVFakeInterfaceAddressSource::interfaceAddresses() {
  std::lock_guard lock(mutex_);
  if (fails_) return std::nullopt;
  return entries_;
}

void QVFakeInterfaceAddressSource::setEntries(std::vector<QVInterfaceAddress> entries) {
  std::lock_guard lock(mutex_);
  entries_ = std::move(entries);
}

void QVFakeInterfaceAddressSource::setFails(bool fails) {
  std::lock_guard lock(mutex_);
  fails_ = fails;
}

QVInterfaceAddress QVFakeInterfaceAddressSource::ipv4(const std::string& name,
                                                      const std::string& text, uint32_t flags) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  EXPECT_EQ(::inet_pton(AF_INET, text.c_str(), &address.sin_addr), 1) << text;
  return {name, flags, AF_INET, bytesOf(address)};
}

QVInterfaceAddress QVFakeInterfaceAddressSource::ipv6(const std::string& name,
                                                      const std::string& text, uint32_t flags,
                                                      uint32_t flowInfo) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_flowinfo = htonl(flowInfo);
  EXPECT_EQ(::inet_pton(AF_INET6, text.c_str(), &address.sin6_addr), 1) << text;
  return {name, flags, AF_INET6, bytesOf(address)};
}

QVInterfaceAddress QVFakeInterfaceAddressSource::withoutAddress(const std::string& name,
                                                                uint32_t flags, int family) {
  return {name, flags, family, {}};
}

}  // namespace qv::test
