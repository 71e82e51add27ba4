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
#include <future>
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

TEST(QVNetlinkReachabilityTest, RefusesWhatItCannotRouteAndKnowsModemLinks) {
  QVNetlinkReachabilitySource source;
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_EQ(source.targetWithAddress(reinterpret_cast<sockaddr*>(&local)), nullptr);
  EXPECT_EQ(source.targetWithAddress(nullptr), nullptr);
  EXPECT_EQ(source.targetWithHostName(""), nullptr);
  // By name, kind or link type; an index no link has, so sysfs is never read.
  const struct {
    const char* name;
    unsigned short type;
    const char* kind;
    bool cellular;
  } links[] = {{"wwan0", ARPHRD_ETHER, "", true},    {"rmnet_data0", ARPHRD_ETHER, "", true},
               {"ccmni0", ARPHRD_ETHER, "", true},   {"mbim0", ARPHRD_NONE, "wwan", true},
               {"qmi0", ARPHRD_NONE, "rmnet", true}, {"usb0", ARPHRD_RAWIP, "", true},
               {"eth0", ARPHRD_ETHER, "", false},    {"tun0", ARPHRD_NONE, "tun", false}};
  for (const auto& l : links) {
    EXPECT_EQ(netlinkLinkIsCellular({1 << 30, l.type, 0, l.name, l.kind}), l.cellular) << l.name;
  }
}

// A loopback, eth0 with an address of each family and wwan0, each a veth
// pair whose far end stays up.
void makeLinks(QVNetworkNamespace& net) {
  net.ip("link set lo up");
  net.addVethLink("eth0", "eth0peer", "10.200.0.1/24");
  net.addVethLink("wwan0", "modem0", "10.201.0.1/24");
  net.ip("addr add 2001:db8::1/64 dev eth0 nodad");
}

// Each kind of default route, and the addresses that the core names after
// the link that carries it, with no interface names set.
void flagsFollowRoutesAndLinks(QVNetworkNamespace& net) {
  using enum QVReachability::NetworkStatus;
  makeLinks(net);
  const auto internet = QVReachability::reachabilityForInternetConnection();
  const auto wifi = QVReachability::reachabilityForLocalWiFi();
  const auto service = QVEnvironmentalSerivce::sharedInstance();
  EXPECT_EQ(hostFlags("127.0.0.1"), kReachable | kQVReachabilityFlagsIsLocalAddress | kDirect);
  EXPECT_EQ(hostFlags("10.200.0.2"), kReachable | kDirect);
  EXPECT_EQ(wifi->currentReachabilityStatus(), 0);
  net.ip("route add 169.254.0.0/16 dev eth0");
  EXPECT_EQ(wifi->currentReachabilityStatus(), 1);
  // After each change, the way to the internet: its flags (of 0.0.0.0, and
  // of a name, which stands for it) by status, and the Wi-Fi address.
  const uint32_t flags[] = {0, kReachable, kReachable | kWWAN};
  const std::pair<const char*, QVReachability::NetworkStatus> rows[] = {
      {"link set lo up", NotReachable},  // no default route
      // IPv6 only; the internet is never direct.
      {"-6 route add default via 2001:db8::2 dev eth0", ReachableViaWiFi},
      {"route add default via 10.200.0.2 dev eth0", ReachableViaWiFi},
      {"-6 route del default", ReachableViaWiFi},
      {"route replace default via 10.201.0.2 dev wwan0", ReachableViaWWAN},
      {"route del default", NotReachable},
      {"route add default dev eth0", ReachableViaWiFi},  // not direct, even without a gateway
      {"link set eth0peer down", NotReachable},  // eth0 loses its carrier but keeps its routes
  };
  bool lookedUp = false;
  for (const auto& [change, status] : rows) {
    SCOPED_TRACE(change);
    net.ip(change);
    EXPECT_EQ(hostFlags("0.0.0.0"), flags[status]);
    EXPECT_EQ(hostFlags("example.org"), flags[status]);
    EXPECT_EQ(internet->currentReachabilityStatus(), status);
    EXPECT_EQ(service->networkWiFiIPAddress(), status == ReachableViaWiFi ? "10.200.0.1" : "");
    // Looked up once per process, once there is a way out.
    lookedUp = lookedUp || status != NotReachable;
    EXPECT_EQ(service->networkIPAddress(), lookedUp ? "10.200.0.1" : "Unknown");
    if (status != ReachableViaWWAN) continue;
    const auto addresses = service->getIPAddressesDict();
    ASSERT_TRUE(addresses);
    EXPECT_EQ(addresses->value("pdp_ip0/ipv4", ""), "10.201.0.1");
    EXPECT_EQ(addresses->value("eth0/ipv4", ""), "10.200.0.1");
  }
}

TEST(QVNetlinkReachabilityTest, FlagsAndAddressesFollowTheRoutesAndLinksOfEitherFamily) {
  QVNetworkNamespace::run(kLinks, flagsFollowRoutesAndLinks);
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
    const bool oneLine = lines.size() == 1 && lines[0].find("routing socket") != std::string::npos;
    QVCore::sharedInstance()->disable();
    return enabled && source && oneLine;
  });
}

// After each route change a posting thread's gate is up to date as soon as
// the watcher thread handled it, before the main loop ran; there the manager
// posts each change of status. (A link's carrier is settled after ip
// returns, so link rows are not read at once.)
void managerFollowsChanges(QVNetworkNamespace& net) {
  auto clock = std::make_shared<QVFakeClock>();
  QVRunLoop& loop = QVRunLoop::main();
  loop.setClock(clock);
  std::vector<QVValue> posted;
  QVNotificationCenter::defaultCenter().addObserver(
      &posted, "kQVEnvironmentalServiceDidPostNetworkChangeNotification", nullptr,
      [&](const QVNotification& n) { posted.push_back(n.userInfo.value_or(QVValue())); });
  auto manager = QVNetworkManager::sharedInstance();
  makeLinks(net);
  ASSERT_TRUE(manager->startNetworkMonitoring());
  const auto monitor = manager->networkMonitor();
  clock->advance(1s);
  loop.runUntilIdle();
  EXPECT_EQ(manager->currentNetworkStatus(), 1u);
  const struct {
    const char* change;
    bool readAtOnce;
    uint64_t status;
  } steps[] = {{"route add default via 10.200.0.2 dev eth0", true, 2},
               {"link set eth0peer down", false, 1},
               {"link set eth0peer up", false, 2},
               {"route del default", true, 1},
               {"-6 route add default via 2001:db8::2 dev eth0", true, 2},
               {"route add default via 10.200.0.2 dev eth0", true, 2},
               {"-6 route del default", true, 2},
               {"route replace default via 10.201.0.2 dev wwan0", true, 3},
               {"route del default", true, 1}};
  // Read on a fresh thread and on this one, which keeps its copy throughout,
  // as posting threads do.
  const auto gate = [&] {
    return std::async(std::launch::async, [&] { return manager->isConnectedViaWifi(); }).get();
  };
  EXPECT_FALSE(gate()) << "no route yet";
  for (const auto& step : steps) {
    SCOPED_TRACE(step.change);
    net.ip(step.change);
    if (step.readAtOnce) {
      ASSERT_TRUE(monitor->awaitPublished(10s));
      EXPECT_EQ(gate(), step.status == 2);
      EXPECT_EQ(manager->isConnectedViaWifi(), step.status == 2);
    }
    EXPECT_TRUE(loop.runUntil([&] { return manager->currentNetworkStatus() == step.status; }, 5s));
    const char* names[] = {"", "NotReachable N/A", "ReachableViaWiFi Wifi",
                           "ReachableViaWWAN WWAN"};
    EXPECT_EQ(manager->currentNetworkReachabilityName() + " " + manager->currentConnectionType(),
              names[step.status]);
  }
  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(3, "ReachableViaWWAN"), change(1, "NotReachable")}));
  // The watcher stops with the last reference to the monitor, without a hang.
  EXPECT_TRUE(manager->stopNetworkMonitoring());
}

TEST(QVNetlinkReachabilityTest, PostingThreadsAndTheManagerFollowEachChangeOfTheWayOut) {
  QVNetworkNamespace::run(kLinks, managerFollowsChanges);
}

}  // namespace
}  // namespace qv
