#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qvcore/platform/QVInterfaceAddressSource.h"

namespace qv::test {

// Interface addresses that a test chooses. Install it with
// QVInterfaceAddressSource::setShared, and set it back to null afterwards;
// set the entries before other threads read them.
class QVFakeInterfaceAddressSource : public QVInterfaceAddressSource {
 public:
  std::optional<std::vector<QVInterfaceAddress>> interfaceAddresses() override { return entries_; }
  void setEntries(std::vector<QVInterfaceAddress> entries) { entries_ = std::move(entries); }

  // An entry laid out as the system lays it out, the address given as text
  // (inet_pton, IPv6 when it holds a ':'; the test fails on text that is not
  // an address); without text, an entry of no family and no bytes.
  static QVInterfaceAddress entry(const std::string& name, const std::string& text, uint32_t flags,
                                  uint32_t flowInfo = 0) {
    if (text.empty()) return {name, flags, AF_UNSPEC, {}};
    if (text.find(':') == std::string::npos) {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      EXPECT_EQ(::inet_pton(AF_INET, text.c_str(), &address.sin_addr), 1) << text;
      return {name, flags, AF_INET, bytesOf(address)};
    }
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_flowinfo = htonl(flowInfo);
    EXPECT_EQ(::inet_pton(AF_INET6, text.c_str(), &address.sin6_addr), 1) << text;
    return {name, flags, AF_INET6, bytesOf(address)};
  }

 private:
  template <typename SocketAddress>
  static std::vector<uint8_t> bytesOf(const SocketAddress& address) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&address);
    return std::vector<uint8_t>(bytes, bytes + sizeof address);
  }

  std::vector<QVInterfaceAddress> entries_;
};

}  // namespace qv::test
