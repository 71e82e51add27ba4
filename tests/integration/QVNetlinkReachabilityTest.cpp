#include "qvcore/platform/QVNetlinkReachabilitySource.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if_arp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "config/QVConfigTestSupport.h"
#include "platform/net/QVNetlinkRoutes.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/environment/QVReachability.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVReachabilityFlags.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVNetworkNamespace.h"
#include "support/QVTestHost.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

constexpr auto kPatience = 5s;
constexpr uint32_t kReachable = kQVReachabilityFlagsReachable;
constexpr uint32_t kDirect = kQVReachabilityFlagsIsDirect;
constexpr uint32_t kWWAN = kQVReachabilityFlagsIsWWAN;

using test::QVNetworkNamespace;
constexpr auto kLinks = QVNetworkNamespace::Kind::kLinks;

std::optional<uint32_t> hostFlags(const std::string& name) {
  return QVNetlinkReachabilitySource().targetWithHostName(name)->flags();
}

QVValue change(uint64_t status, const char* name) {
  return {{"keyVQNetworkStatus", status}, {"keyQVConnectionType", name}};
}

TEST(QVNetlinkReachabilityTest, RefusesWhatItCannotRoute) {
  QVNetlinkReachabilitySource source;
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_EQ(source.targetWithAddress(reinterpret_cast<sockaddr*>(&local)), nullptr);
  EXPECT_EQ(source.targetWithAddress(nullptr), nullptr);
  EXPECT_EQ(source.targetWithHostName(""), nullptr);
  EXPECT_EQ(source.currentRadioAccessTechnology(), std::nullopt);
}

void flagsFollowTheKernelsRoutes(QVNetworkNamespace& net) {
  net.ip("link set lo up");
  EXPECT_EQ(hostFlags("0.0.0.0"), 0u) << "loopback alone is not the internet";
  EXPECT_EQ(hostFlags("127.0.0.1"), kReachable | kQVReachabilityFlagsIsLocalAddress | kDirect);
  net.addVethLink("veth0", "veth1", "10.200.0.1/24");
  EXPECT_EQ(hostFlags("10.200.0.2"), kReachable | kDirect);
  EXPECT_EQ(hostFlags("example.org"), 0u) << "a name stands for the internet";
  EXPECT_EQ(QVReachability::reachabilityForLocalWiFi()->currentReachabilityStatus(), 0);
  net.ip("route add 169.254.0.0/16 dev veth0");
  EXPECT_EQ(QVReachability::reachabilityForLocalWiFi()->currentReachabilityStatus(), 1);
  net.ip("route add default via 10.200.0.2 dev veth0");
  EXPECT_EQ(hostFlags("0.0.0.0"), kReachable) << "the internet is never direct";
  EXPECT_EQ(hostFlags("example.org"), kReachable);
  net.ip("link set veth1 down");  // veth0 loses its carrier but keeps its routes
  EXPECT_EQ(hostFlags("0.0.0.0"), 0u);
}

TEST(QVNetlinkReachabilityTest, FlagsFollowTheKernelsRoutesAndLinks) {
  QVNetworkNamespace::run(kLinks, flagsFollowTheKernelsRoutes);
}

// Each kind of default route, and the addresses that the core names after
// the link that carries it, with no interface names set.
void internetOverEachDefaultRoute(QVNetworkNamespace& net) {
  net.ip("link set lo up");
  net.addVethLink("eth0", "eth0peer", "10.200.0.1/24");
  net.addVethLink("wwan0", "modem0", "10.201.0.1/24");
  net.ip("addr add 2001:db8::1/64 dev eth0 nodad");
  const auto internet = QVReachability::reachabilityForInternetConnection();
  const auto service = QVEnvironmentalSerivce::sharedInstance();
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::NotReachable) << "no route";
  EXPECT_EQ(service->networkWiFiIPAddress(), "");
  EXPECT_EQ(service->networkIPAddress(), "Unknown");

  net.ip("-6 route add default via 2001:db8::2 dev eth0");
  EXPECT_EQ(hostFlags("0.0.0.0"), kReachable) << "IPv6 only";
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::ReachableViaWiFi);
  net.ip("route add default via 10.200.0.2 dev eth0");
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::ReachableViaWiFi) << "both";
  EXPECT_EQ(service->networkIPAddress(), "10.200.0.1");
  EXPECT_EQ(service->networkWiFiIPAddress(), "10.200.0.1");
  net.ip("-6 route del default");
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::ReachableViaWiFi) << "IPv4";

  net.ip("route replace default via 10.201.0.2 dev wwan0");
  EXPECT_EQ(hostFlags("0.0.0.0"), kReachable | kWWAN);
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::ReachableViaWWAN);
  EXPECT_EQ(service->networkWiFiIPAddress(), "");
  const auto addresses = service->getIPAddressesDict();
  ASSERT_TRUE(addresses);
  EXPECT_EQ(addresses->value("pdp_ip0/ipv4", ""), "10.201.0.1");
  EXPECT_EQ(addresses->value("eth0/ipv4", ""), "10.200.0.1");
  EXPECT_EQ(service->networkIPAddress(), "10.200.0.1") << "looked up once per process";
  net.ip("route del default");
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::NotReachable);
}

TEST(QVNetlinkReachabilityTest, InternetAndAddressesFollowTheDefaultRouteOfEitherFamily) {
  QVNetworkNamespace::run(kLinks, internetOverEachDefaultRoute);
}

TEST(QVNetlinkReachabilityTest, ModemLinksAreKnownByNameKindOrLinkType) {
  // An index no link has, so that sysfs is never taken for the answer.
  const auto link = [](const char* name, unsigned short type, const char* kind) {
    return QVNetlinkLink{1 << 30, type, 0, name, kind};
  };
  EXPECT_TRUE(netlinkLinkIsCellular(link("wwan0", ARPHRD_ETHER, "")));
  EXPECT_TRUE(netlinkLinkIsCellular(link("rmnet_data0", ARPHRD_RAWIP, "")));
  EXPECT_TRUE(netlinkLinkIsCellular(link("mbim0", ARPHRD_NONE, "wwan")));
  EXPECT_TRUE(netlinkLinkIsCellular(link("usb0", ARPHRD_RAWIP, "")));
  EXPECT_FALSE(netlinkLinkIsCellular(link("eth0", ARPHRD_ETHER, "")));
  EXPECT_FALSE(netlinkLinkIsCellular(link("wlan0", ARPHRD_ETHER, "")));
  EXPECT_FALSE(netlinkLinkIsCellular(link("tun0", ARPHRD_NONE, "tun")));
}

// What some sandboxes do: every AF_NETLINK socket is refused.
bool refuseNetlinkSockets() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

TEST(QVNetlinkReachabilityTest, CoreEnablesOnTheHostsWordWhereNetlinkIsRefused) {
  test::expectInFreshProcess([] {
    if (!refuseNetlinkSockets()) return false;
    std::vector<std::string> lines;
    QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
    test::QVTestHost host("com.example.sandboxed", /*hostReachability=*/false);
    host.writeCoreConfig({{"PostMessageLevelWiFi", 3}});
    const bool enabled = QVCore::sharedInstance()->enable();
    const auto source =
        std::dynamic_pointer_cast<QVHostReachabilitySource>(QVReachabilitySource::shared());
    for (const auto& line : lines) std::fprintf(stderr, "logged: %s\n", line.c_str());
    std::fprintf(stderr, "enabled %d, host source %d\n", enabled, source != nullptr);
    const bool oneLine = lines.size() == 1 && lines[0].find("routing socket") != std::string::npos;
    QVCore::sharedInstance()->disable();
    return enabled && source && oneLine;
  });
}

void managerFollowsChanges(QVNetworkNamespace& net) {
  auto clock = std::make_shared<QVFakeClock>();
  QVRunLoop& loop = QVRunLoop::main();
  loop.setClock(clock);
  std::vector<QVValue> posted;
  QVNotificationCenter::defaultCenter().addObserver(
      &posted, "kQVEnvironmentalServiceDidPostNetworkChangeNotification", nullptr,
      [&](const QVNotification& n) { posted.push_back(n.userInfo.value_or(QVValue())); });
  auto manager = QVNetworkManager::sharedInstance();
  auto awaitStatus = [&](uint64_t status) {
    EXPECT_TRUE(loop.runUntil([&] { return manager->currentNetworkStatus() == status; }, kPatience))
        << "status " << status << " never came";
  };

  net.ip("link set lo up");
  net.addVethLink("veth0", "veth1", "10.200.0.1/24");
  ASSERT_TRUE(manager->startNetworkMonitoring());
  clock->advance(1s);
  loop.runUntilIdle();
  EXPECT_EQ(manager->currentNetworkStatus(), 1u);

  net.ip("route add default via 10.200.0.2 dev veth0");
  awaitStatus(2);
  EXPECT_EQ(manager->currentConnectionType(), "Wifi");
  EXPECT_TRUE(manager->isConnectedViaWifi());
  net.ip("link set veth1 down");
  awaitStatus(1);
  net.ip("link set veth1 up");
  awaitStatus(2);

  net.addVethLink("wwan0", "modem0", "10.201.0.1/24");
  net.ip("route replace default via 10.201.0.2 dev wwan0");
  awaitStatus(3);
  EXPECT_EQ(manager->currentNetworkReachabilityName(), "ReachableViaWWAN");
  EXPECT_EQ(manager->currentConnectionType(), "WWAN");
  net.ip("route del default");
  awaitStatus(1);

  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(3, "ReachableViaWWAN"), change(1, "NotReachable")}));
  EXPECT_TRUE(manager->stopNetworkMonitoring());
}

TEST(QVNetlinkReachabilityTest, ManagerPostsEachChangeOfTheWayToTheInternet) {
  QVNetworkNamespace::run(kLinks, managerFollowsChanges);
}

}  // namespace
}  // namespace qv
