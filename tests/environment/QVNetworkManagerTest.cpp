#include "qvcore/environment/QVNetworkManager.h"

#include <gtest/gtest.h>

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

class QVNetworkManagerTest : public ::testing::Test {
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
  }
  void TearDown() override {
    QVNotificationCenter::defaultCenter().removeObserver(this);
    QVRunLoop::main().setClock(nullptr);
    QVReachabilitySource::setShared(nullptr);
  }

  // Starts monitoring and lets the delayed first evaluation run.
  void startAndSettle() {
    ASSERT_TRUE(manager->startNetworkMonitoring());
    clock->advance(1s);
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
  static QVValue change(uint64_t status, const char* name) {
    return {{"keyVQNetworkStatus", status}, {"keyQVConnectionType", name}};
  }

  std::shared_ptr<QVHostReachabilitySource> source = std::make_shared<QVHostReachabilitySource>();
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  std::shared_ptr<QVNetworkManager> manager = QVNetworkManager::sharedInstance();
  std::vector<QVValue> posted;
};

TEST_F(QVNetworkManagerTest, StartsUnknownAndEvaluatesOneSecondAfterStartOnTheMainLoop) {
  EXPECT_EQ(manager->currentNetworkStatus(), 0u);
  EXPECT_EQ(manager->currentNetworkReachabilityName(), "UNKNOWN");
  EXPECT_EQ(manager->currentConnectionType(), "N/A");
  const std::pair<int64_t, const char*> names[] = {
      {0, "NotReachable"}, {1, "ReachableViaWiFi"}, {2, "ReachableViaWWAN"},
      {3, "UNKNOWN"},      {-1, "UNKNOWN"},
  };
  for (const auto& [status, name] : names) {
    EXPECT_EQ(QVNetworkManager::stringForNetworkStatus(status), name) << status;
  }
  // The first evaluation runs one second after the start, on the main loop.
  source->setFlags(kWiFi);
  ASSERT_TRUE(manager->startNetworkMonitoring());
  clock->advance(1s - 1ns);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(manager->currentNetworkStatus(), 0u);
  clock->advance(1ns);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(posted, std::vector<QVValue>{change(2, "ReachableViaWiFi")});
  EXPECT_EQ(manager->currentNetworkStatus(), 2u);
  EXPECT_EQ(manager->currentNetworkReachabilityName(), "ReachableViaWiFi");
  EXPECT_EQ(manager->currentConnectionType(), "Wifi");
  EXPECT_TRUE(manager->isConnectedViaWifi());
}

TEST_F(QVNetworkManagerTest, PostsOnlyStatusChangesWhileTheTypeFollowsTheRadio) {
  source->setFlags(kWiFi);
  startAndSettle();
  setRadio("CTRadioAccessTechnologyLTE");
  setFlags(kCellular);
  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(2, "ReachableViaWiFi"), change(3, "ReachableViaWWAN")}));
  EXPECT_EQ(manager->currentConnectionType(), "4G");
  EXPECT_FALSE(manager->isConnectedViaWifi());
  setRadio("CTRadioAccessTechnologyHSDPA");
  EXPECT_EQ(posted.size(), 2u) << "an unchanged status posts nothing";
  EXPECT_EQ(manager->currentConnectionType(), "3G");
  setFlags(0);
  EXPECT_EQ(posted.back(), change(1, "NotReachable"));
  EXPECT_EQ(manager->currentConnectionType(), "N/A");
}

TEST_F(QVNetworkManagerTest, CellularTypeComesFromTheRadioTable) {
  const std::pair<std::optional<std::string>, const char*> rows[] = {
      {"CTRadioAccessTechnologyGPRS", "2G"},
      {"CTRadioAccessTechnologyEdge", "2G"},
      {"CTRadioAccessTechnologyCDMA1x", "2G"},
      {"CTRadioAccessTechnologyWCDMA", "3G"},
      {"CTRadioAccessTechnologyHSDPA", "3G"},
      {"CTRadioAccessTechnologyHSUPA", "3G"},
      {"CTRadioAccessTechnologyCDMAEVDORev0", "3G"},
      {"CTRadioAccessTechnologyCDMAEVDORevA", "3G"},
      {"CTRadioAccessTechnologyCDMAEVDORevB", "3G"},
      {"CTRadioAccessTechnologyeHRPD", "3G"},
      {"CTRadioAccessTechnologyLTE", "4G"},
      {"CTRadioAccessTechnologyNR", "WWAN"},
      {"", "WWAN"},
      {std::nullopt, "WWAN"},
  };
  source->setFlags(kCellular);
  startAndSettle();
  for (const auto& [technology, type] : rows) {
    setRadio(technology);
    EXPECT_EQ(manager->currentConnectionType(), type) << technology.value_or("(none)");
  }
}

TEST_F(QVNetworkManagerTest, SecondOrFailedStartsAreRefusedAndWhatTheyLeaveBehind) {
  ASSERT_TRUE(manager->startNetworkMonitoring());
  const auto monitor = manager->networkMonitor();
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), monitor);
  EXPECT_EQ(source->scheduledTargetCount(), 1u);
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(manager.get()), 1u);
  clock->advance(1s);
  QVRunLoop::main().runUntilIdle();
  posted.clear();
  EXPECT_TRUE(manager->stopNetworkMonitoring());

  // A monitor that cannot be scheduled stays, so starting is refused until a
  // stop; nothing more is observed and no evaluation follows.
  source->setFailsToSchedule(true);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(manager.get()), 0u);
  source->setFailsToSchedule(false);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  clock->advance(1s);
  QVRunLoop::main().runUntilIdle();
  EXPECT_TRUE(posted.empty());
  EXPECT_TRUE(manager->stopNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), nullptr);

  // With no target at all there is no monitor to refuse the next start.
  source->setFailsToCreateTargets(true);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), nullptr);
  source->setFailsToCreateTargets(false);
  EXPECT_TRUE(manager->startNetworkMonitoring());
}

TEST_F(QVNetworkManagerTest, StopKeepsTheLastStatusAndARestartPostsOnlyRealChanges) {
  source->setFlags(kWiFi);
  startAndSettle();
  EXPECT_TRUE(manager->stopNetworkMonitoring());
  EXPECT_TRUE(manager->stopNetworkMonitoring()) << "nothing left to stop";
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  EXPECT_EQ(manager->currentNetworkStatus(), 2u);
  EXPECT_EQ(manager->currentNetworkReachabilityName(), "ReachableViaWiFi");
  EXPECT_EQ(manager->currentConnectionType(), "Wifi");
  EXPECT_FALSE(manager->isConnectedViaWifi());

  startAndSettle();
  setFlags(kCellular);
  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(2, "ReachableViaWiFi"), change(3, "ReachableViaWWAN")}));
}

TEST_F(QVNetworkManagerTest, QueriesFromAnotherThreadSeeWholeValues) {
  startAndSettle();
  std::atomic<bool> done{false};
  std::thread reader([&] {
    const std::set<std::string> known{
        "UNKNOWN", "NotReachable", "ReachableViaWiFi", "ReachableViaWWAN", "N/A", "Wifi", "4G"};
    while (!done) {
      EXPECT_TRUE(known.count(manager->currentNetworkReachabilityName()));
      EXPECT_TRUE(known.count(manager->currentConnectionType()));
      EXPECT_LE(manager->currentNetworkStatus(), 3u);
      manager->isConnectedViaWifi();
    }
  });
  setRadio("CTRadioAccessTechnologyLTE");
  for (int i = 0; i < 100; ++i) setFlags(i % 3 == 0 ? 0 : i % 3 == 1 ? kWiFi : kCellular);
  done = true;
  reader.join();
  EXPECT_EQ(posted.size(), 100u) << "every one of them changed the status";
}

}  // namespace
}  // namespace qv
