#include "qvcore/platform/QVNetlinkReachabilitySource.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/environment/QVReachability.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVReachabilityFlags.h"
#include "qvcore/platform/QVRunLoop.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

constexpr int kCannotIsolate = 77;
constexpr auto kPatience = 5s;
constexpr uint32_t kReachable = kQVReachabilityFlagsReachable;
constexpr uint32_t kDirect = kQVReachabilityFlagsIsDirect;

std::string ipTool() {
  for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return {};
}

// Runs body in a child process in a network namespace of its own, so that
// the links and routes it makes never touch the host's. Failures inside are
// printed by the child; its exit status carries the verdict.
void inOwnNetworkNamespace(void (*body)(const std::string& ip)) {
  const std::string ip = ipTool();
  if (ip.empty()) GTEST_SKIP() << "iproute2 (ip) is not installed";
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0) << std::strerror(errno);
  if (child == 0) {
    ::alarm(120);  // a hang fails the test instead of blocking it
    if (::unshare(CLONE_NEWNET) != 0) {
      const int error = errno;
      std::fprintf(stderr, "unshare(CLONE_NEWNET): %s\n", std::strerror(error));
      ::_exit(error == EPERM || error == EINVAL ? kCannotIsolate : 1);
    }
    body(ip);
    std::fflush(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotIsolate) {
    GTEST_SKIP() << "no network namespace can be made here (needs CAP_SYS_ADMIN)";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the checks inside the namespace failed (see above); status " << status;
}

void run(const std::string& ip, const std::string& arguments) {
  const std::string command = ip + " " + arguments;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// A veth pair whose far end stays in the namespace, so that name has a
// carrier as long as peer is up.
void addLink(const std::string& ip, const std::string& name, const std::string& peer,
             const std::string& address) {
  run(ip, "link add " + name + " type veth peer name " + peer);
  run(ip, "link set " + peer + " up");
  run(ip, "link set " + name + " up");
  run(ip, "addr add " + address + " dev " + name);
}

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

void flagsFollowTheKernelsRoutes(const std::string& ip) {
  run(ip, "link set lo up");
  EXPECT_EQ(hostFlags("0.0.0.0"), 0u) << "loopback alone is not the internet";
  EXPECT_EQ(hostFlags("127.0.0.1"), kReachable | kQVReachabilityFlagsIsLocalAddress | kDirect);
  addLink(ip, "veth0", "veth1", "10.200.0.1/24");
  EXPECT_EQ(hostFlags("10.200.0.2"), kReachable | kDirect);
  EXPECT_EQ(hostFlags("example.org"), 0u) << "a name stands for the internet";
  EXPECT_EQ(QVReachability::reachabilityForLocalWiFi()->currentReachabilityStatus(), 0);
  run(ip, "route add 169.254.0.0/16 dev veth0");
  EXPECT_EQ(QVReachability::reachabilityForLocalWiFi()->currentReachabilityStatus(), 1);
  run(ip, "route add default via 10.200.0.2 dev veth0");
  EXPECT_EQ(hostFlags("0.0.0.0"), kReachable) << "the internet is never direct";
  EXPECT_EQ(hostFlags("example.org"), kReachable);
  run(ip, "link set veth1 down");  // veth0 loses its carrier but keeps its routes
  EXPECT_EQ(hostFlags("0.0.0.0"), 0u);
}

TEST(QVNetlinkReachabilityTest, FlagsFollowTheKernelsRoutesAndLinks) {
  inOwnNetworkNamespace(flagsFollowTheKernelsRoutes);
}

void managerFollowsChanges(const std::string& ip) {
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

  run(ip, "link set lo up");
  addLink(ip, "veth0", "veth1", "10.200.0.1/24");
  ASSERT_TRUE(manager->startNetworkMonitoring());
  clock->advance(1s);
  loop.runUntilIdle();
  EXPECT_EQ(manager->currentNetworkStatus(), 1u);

  run(ip, "route add default via 10.200.0.2 dev veth0");
  awaitStatus(2);
  EXPECT_EQ(manager->currentConnectionType(), "Wifi");
  EXPECT_TRUE(manager->isConnectedViaWifi());
  run(ip, "link set veth1 down");
  awaitStatus(1);
  run(ip, "link set veth1 up");
  awaitStatus(2);

  addLink(ip, "wwan0", "modem0", "10.201.0.1/24");
  run(ip, "route replace default via 10.201.0.2 dev wwan0");
  awaitStatus(3);
  EXPECT_EQ(manager->currentNetworkReachabilityName(), "ReachableViaWWAN");
  EXPECT_EQ(manager->currentConnectionType(), "WWAN");
  run(ip, "route del default");
  awaitStatus(1);

  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(1, "NotReachable"), change(2, "ReachableViaWiFi"),
                                  change(3, "ReachableViaWWAN"), change(1, "NotReachable")}));
  EXPECT_TRUE(manager->stopNetworkMonitoring());
}

TEST(QVNetlinkReachabilityTest, ManagerPostsEachChangeOfTheWayToTheInternet) {
  inOwnNetworkNamespace(managerFollowsChanges);
}

}  // namespace
}  // namespace qv
