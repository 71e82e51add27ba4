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
using Texts = std::vector<std::string>;

// The IPv4 entries of the named interface, as dotted text read from the
// socket-address bytes at the system's offset ("short" for too few bytes).
Texts ipv4Of(const std::optional<Entries>& entries, const std::string& name) {
  Texts texts;
  for (const auto& entry : entries.value_or(Entries{})) {
    if (entry.name != name || entry.family != AF_INET) continue;
    char text[INET_ADDRSTRLEN] = "short";
    if (entry.address.size() == sizeof(sockaddr_in)) {
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry.address.data());
      ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    }
    texts.push_back(text);
  }
  return texts;
}

// Entries of other families carry their own socket address, or none; host
// names map onto the names the core knows.
TEST(QVInterfaceAddressSourceTest, SystemListsLoopbackWithItsRawAddressUnderTheMappedName) {
  auto entries = QVInterfaceAddressSource::shared()->interfaceAddresses();
  ASSERT_TRUE(entries);
  EXPECT_EQ(ipv4Of(entries, "lo"), Texts{"127.0.0.1"});
  for (const auto& entry : *entries) {
    if (entry.name != "lo" || entry.family == AF_INET) continue;
    EXPECT_TRUE(entry.flags & IFF_LOOPBACK);
    EXPECT_EQ(entry.address.size(), entry.family == AF_INET6 ? sizeof(sockaddr_in6) : 0u);
  }
  EXPECT_EQ(
      QVSystemInterfaceAddressSource::parseInterfaceNameMap(" wlan0 = en0,bad,=x,wwan0=pdp_ip0,"),
      (std::map<std::string, std::string>{{"wlan0", "en0"}, {"wwan0", "pdp_ip0"}}));
  QVSystemInterfaceAddressSource::setInterfaceNameMap({{"lo", "en0"}});
  entries = QVSystemInterfaceAddressSource().interfaceAddresses();
  ASSERT_TRUE(entries);
  EXPECT_TRUE(
      std::none_of(entries->begin(), entries->end(), [](auto& e) { return e.name == "lo"; }));
  EXPECT_EQ(ipv4Of(entries, "en0"), Texts{"127.0.0.1"});
}

TEST(QVInterfaceAddressSourceTest, EnvironmentGivesTheStartingMap) {
  test::expectInFreshProcess([] {
    ::setenv("QVCORE_INTERFACE_NAMES", "lo=pdp_ip0", 1);
    return ipv4Of(QVSystemInterfaceAddressSource().interfaceAddresses(), "pdp_ip0") ==
           Texts{"127.0.0.1"};
  });
}

}  // namespace
}  // namespace qv
