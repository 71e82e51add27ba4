#include "qvcore/platform/QVInterfaceAddressSource.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include "config/QVConfigTestSupport.h"
#include "qvcore/platform/QVSystemInterfaceAddressSource.h"

namespace qv {
namespace {

using Entries = std::vector<QVInterfaceAddress>;

// The IPv4 entries of the named interface, as dotted text read from the
// socket-address bytes at the system's offset.
std::vector<std::string> ipv4Of(const Entries& entries, const std::string& name) {
  std::vector<std::string> texts;
  for (const auto& entry : entries) {
    if (entry.name != name || entry.family != AF_INET) continue;
    EXPECT_EQ(entry.address.size(), sizeof(sockaddr_in));
    sockaddr_in address{};
    std::memcpy(&address, entry.address.data(), std::min(entry.address.size(), sizeof address));
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    texts.push_back(text);
  }
  return texts;
}

bool listsName(const Entries& entries, const std::string& name) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const QVInterfaceAddress& e) { return e.name == name; });
}

TEST(QVInterfaceAddressSourceTest, SystemListsLoopbackWithItsRawAddress) {
  auto entries = QVInterfaceAddressSource::shared()->interfaceAddresses();
  ASSERT_TRUE(entries);
  EXPECT_EQ(ipv4Of(*entries, "lo"), std::vector<std::string>{"127.0.0.1"});
  for (const auto& entry : *entries) {
    if (entry.name != "lo") continue;
    EXPECT_TRUE(entry.flags & IFF_LOOPBACK);
    const std::size_t expected = entry.family == AF_INET    ? sizeof(sockaddr_in)
                                 : entry.family == AF_INET6 ? sizeof(sockaddr_in6)
                                                            : 0;
    EXPECT_EQ(entry.address.size(), expected) << "family " << entry.family;
  }
}

TEST(QVInterfaceAddressSourceTest, HostNamesMapOntoTheNamesTheCoreKnows) {
  EXPECT_EQ(
      QVSystemInterfaceAddressSource::parseInterfaceNameMap(" wlan0 = en0,bad,=x,wwan0=pdp_ip0,"),
      (std::map<std::string, std::string>{{"wlan0", "en0"}, {"wwan0", "pdp_ip0"}}));
  QVSystemInterfaceAddressSource::setInterfaceNameMap({{"lo", "en0"}});
  auto entries = QVSystemInterfaceAddressSource().interfaceAddresses();
  ASSERT_TRUE(entries);
  EXPECT_FALSE(listsName(*entries, "lo"));
  EXPECT_EQ(ipv4Of(*entries, "en0"), std::vector<std::string>{"127.0.0.1"});
}

TEST(QVInterfaceAddressSourceTest, EnvironmentGivesTheStartingMap) {
  test::expectInFreshProcess([] {
    ::setenv("QVCORE_INTERFACE_NAMES", "lo=pdp_ip0", 1);
    auto entries = QVSystemInterfaceAddressSource().interfaceAddresses();
    return entries && ipv4Of(*entries, "pdp_ip0") == std::vector<std::string>{"127.0.0.1"};
  });
}

}  // namespace
}  // namespace qv
