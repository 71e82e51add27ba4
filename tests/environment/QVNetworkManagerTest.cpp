// The network monitor: reachability read from host-fed flags, and the
// manager that turns it into a status and a connection type.
#include "qvcore/environment/QVNetworkManager.h"

#include <gtest/gtest.h>
#include <sys/un.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "qvcore/environment/QVReachability.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

constexpr uint32_t kWiFi = 0x2;
constexpr uint32_t kCellular = 0x40002;

class QVNetworkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVReachabilitySource::setShared(source);
    QVRunLoop::main().setClock(clock);
    QVNotificationCenter::defaultCenter().addObserver(
        this, "kQVEnvironmentalServiceDidPostNetworkChangeNotification", nullptr,
        [this](const QVNotification& n) {
          EXPECT_EQ(n.sender, nullptr);
          posted.push_back(n.userInfo.value_or(QVValue()));
        });
    QVNotificationCenter::defaultCenter().addObserver(
        this, "kQVNetworkReachabilityChangedNotification", nullptr,
        [this](const QVNotification& n) { senders.push_back(n.sender); });
  }
  void TearDown() override {
    QVNotificationCenter::defaultCenter().removeObserver(this);
    QVRunLoop::main().setClock(nullptr);
    QVReachabilitySource::setShared(nullptr);
  }

  // Starts monitoring and runs past the delayed first evaluation.
  bool start() {
    const bool started = manager->startNetworkMonitoring();
    settle();
    return started;
  }
  void settle(QVClock::Duration time = 1s) {
    clock->advance(time);
    QVRunLoop::main().runUntilIdle();
  }
  void setFlags(uint32_t flags) {
    source->setFlags(flags);
    QVRunLoop::main().runUntilIdle();
  }
  void setRadio(std::optional<std::string> technology) {
    source->setRadioAccessTechnology(std::move(technology));
    QVRunLoop::main().runUntilIdle();
  }
  // What the manager answers: status, its name, the connection type, and
  // " wifi" while it reports a Wi-Fi connection.
  std::string state() {
    return std::to_string(manager->currentNetworkStatus()) + " " +
           manager->currentNetworkReachabilityName() + " " + manager->currentConnectionType() +
           (manager->isConnectedViaWifi() ? " wifi" : "");
  }
  static QVValue change(uint64_t status, const char* name) {
    return {{"keyVQNetworkStatus", status}, {"keyQVConnectionType", name}};
  }

  std::shared_ptr<QVHostReachabilitySource> source = std::make_shared<QVHostReachabilitySource>();
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  std::shared_ptr<QVNetworkManager> manager = QVNetworkManager::sharedInstance();
  std::vector<QVValue> posted;
  std::vector<const void*> senders;  // of reachability changes
};

// The first evaluation comes a second after the start; a stop keeps the last
// status, and only real changes are posted, however the radio changes the
// type.
TEST_F(QVNetworkTest, EvaluatesASecondAfterStartAndPostsOnlyStatusChanges) {
  EXPECT_EQ(state(), "0 UNKNOWN N/A");
  EXPECT_EQ(QVNetworkManager::stringForNetworkStatus(-1), "UNKNOWN");
  source->setFlags(kWiFi);
  ASSERT_TRUE(manager->startNetworkMonitoring());
  settle(1s - 1ns);
  EXPECT_EQ(state(), "0 UNKNOWN N/A wifi") << "the monitor answers at once";
  settle(1ns);
  EXPECT_EQ(state(), "2 ReachableViaWiFi Wifi wifi");
  EXPECT_TRUE(manager->stopNetworkMonitoring());
  EXPECT_TRUE(manager->stopNetworkMonitoring()) << "nothing left to stop";
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  EXPECT_EQ(state(), "2 ReachableViaWiFi Wifi") << "no longer reported as Wi-Fi";

  ASSERT_TRUE(start());
  setFlags(kCellular);
  const std::pair<std::optional<std::string>, const char*> rows[] = {
      {"GPRS", "2G"},         {"Edge", "2G"},  {"CDMA1x", "2G"},       {"WCDMA", "3G"},
      {"HSDPA", "3G"},        {"HSUPA", "3G"}, {"CDMAEVDORev0", "3G"}, {"CDMAEVDORevA", "3G"},
      {"CDMAEVDORevB", "3G"}, {"eHRPD", "3G"}, {"LTE", "4G"},          {"NR", "WWAN"},
      {std::nullopt, "WWAN"}, {"", "WWAN"}};
  for (const auto& [technology, type] : rows) {
    setRadio(technology ? "CTRadioAccessTechnology" + *technology : technology);
    EXPECT_EQ(state(), std::string("3 ReachableViaWWAN ") + type) << technology.value_or("none");
  }
  setRadio("");
  EXPECT_EQ(state(), "3 ReachableViaWWAN WWAN") << "empty text";
  setFlags(0);
  EXPECT_EQ(state(), "1 NotReachable N/A");
  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(2, "ReachableViaWiFi"), change(3, "ReachableViaWWAN"),
                                  change(1, "NotReachable")}));
}

// Without a target (an address the source cannot route, or a source that
// makes none) nothing is made, so there is no monitor to refuse a start.
TEST_F(QVNetworkTest, SecondOrFailedStartsAreRefusedAndWhatTheyLeaveBehind) {
  ASSERT_TRUE(manager->startNetworkMonitoring());
  const auto monitor = manager->networkMonitor();
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), monitor);
  EXPECT_EQ(source->scheduledTargetCount(), 1u);
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(manager.get()), 1u);
  settle();
  posted.clear();
  EXPECT_TRUE(manager->stopNetworkMonitoring());

  // A monitor that cannot be scheduled stays, so starting is refused until a
  // stop; nothing more is observed and no evaluation follows.
  source->setFailsToSchedule(true);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(manager.get()), 0u);
  source->setFailsToSchedule(false);
  EXPECT_FALSE(start());
  EXPECT_TRUE(posted.empty());
  EXPECT_TRUE(manager->stopNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), nullptr);

  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_FALSE(QVReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&local)));
  source->setFailsToCreateTargets(true);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), nullptr);
  source->setFailsToCreateTargets(false);
  EXPECT_TRUE(manager->startNetworkMonitoring());
}

// Whether the connection is Wi-Fi, read by posting threads, is held by the
// netlink test's gate readers.
TEST_F(QVNetworkTest, QueriesFromAnotherThreadSeeWholeValues) {
  ASSERT_TRUE(start());
  const std::set<std::string> known{
      "UNKNOWN", "NotReachable", "ReachableViaWiFi", "ReachableViaWWAN", "N/A", "Wifi", "4G"};
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      EXPECT_TRUE(known.count(manager->currentNetworkReachabilityName()) &&
                  known.count(manager->currentConnectionType()) &&
                  manager->currentNetworkStatus() <= 3u);
    }
  });
  setRadio("CTRadioAccessTechnologyLTE");
  for (int i = 0; i < 100; ++i) setFlags(i % 3 == 0 ? 0 : i % 3 == 1 ? kWiFi : kCellular);
  done = true;
  reader.join();
  EXPECT_EQ(posted.size(), 100u) << "every one of them changed the status";
}

// Per flags (none: unreadable): the internet target's status, the local
// Wi-Fi target's, and whether the internet target needs a connection.
TEST_F(QVNetworkTest, StatusFollowsTheFlagRulesAndTheNotifierPostsEachChange) {
  const std::pair<std::optional<uint32_t>, const char*> rows[] = {
      {0x0, "0 0"},           {0x2, "1 0"},           {0x6, "0 0 required"},
      {0x26, "1 0 required"}, {0x36, "0 0 required"}, {0xE, "1 0 required"},
      {0x1E, "0 0 required"}, {0x40002, "2 0"},       {0x40006, "2 0 required"},
      {0x40000, "0 0"},       {0x20002, "1 1"},       {0x60002, "2 1"},
      {0x20000, "0 0"},       {0x4, "0 0 required"},  {std::nullopt, "0 0"}};
  auto internet = QVReachability::reachabilityForInternetConnection();
  auto localWiFi = QVReachability::reachabilityForLocalWiFi();
  ASSERT_TRUE(internet && localWiFi);
  for (const auto& [flags, expected] : rows) {
    source->setFlags(flags);
    EXPECT_EQ(std::to_string(internet->currentReachabilityStatus()) + " " +
                  std::to_string(localWiFi->currentReachabilityStatus()) +
                  (internet->connectionRequired() ? " required" : ""),
              expected)
        << std::hex << flags.value_or(0xdead);
  }

  // A started notifier posts each change with itself as sender until
  // stopped; it does not keep its object alive, and its end stops it.
  ASSERT_TRUE(internet->startNotifier());
  source->setFlags(0x2);
  source->setRadioAccessTechnology("CTRadioAccessTechnologyLTE");
  EXPECT_TRUE(senders.empty()) << "changes arrive on the run loop, not on the setter's stack";
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(senders, (std::vector<const void*>{internet.get(), internet.get()}));

  EXPECT_TRUE(internet->stopNotifier());
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  source->setFlags(0x0);
  QVRunLoop::main().runUntilIdle();
  ASSERT_TRUE(internet->startNotifier());
  std::weak_ptr<QVReachability> weak = internet;
  source->setFlags(0x2);  // a change already on its way to the loop
  internet.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(senders.size(), 2u);
}

}  // namespace
}  // namespace qv
