#include "qvcore/environment/QVReachability.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <vector>

#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {
namespace {

class QVReachabilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVReachabilitySource::setShared(source);
    QVNotificationCenter::defaultCenter().addObserver(
        this, "kQVNetworkReachabilityChangedNotification", nullptr,
        [this](const QVNotification& n) { senders.push_back(n.sender); });
  }
  void TearDown() override {
    QVNotificationCenter::defaultCenter().removeObserver(this);
    QVReachabilitySource::setShared(nullptr);
  }

  std::shared_ptr<QVHostReachabilitySource> source = std::make_shared<QVHostReachabilitySource>();
  std::vector<const void*> senders;
};

struct FlagRow {
  uint32_t flags;
  int64_t internet;   // status of the internet target
  int64_t localWiFi;  // status of the local Wi-Fi target
  bool connectionRequired;
};

TEST_F(QVReachabilityTest, StatusFollowsTheFlagRulesForBothTargets) {
  const FlagRow rows[] = {
      {0x0, 0, 0, false},     {0x2, 1, 0, false},     {0x6, 0, 0, true},
      {0x26, 1, 0, true},     {0x36, 0, 0, true},     {0xE, 1, 0, true},
      {0x1E, 0, 0, true},     {0x40002, 2, 0, false}, {0x40006, 2, 0, true},
      {0x40000, 0, 0, false}, {0x20002, 1, 1, false}, {0x60002, 2, 1, false},
      {0x20000, 0, 0, false}, {0x4, 0, 0, true},
  };
  auto internet = QVReachability::reachabilityForInternetConnection();
  auto localWiFi = QVReachability::reachabilityForLocalWiFi();
  ASSERT_TRUE(internet && localWiFi);
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "flags 0x" << std::hex << row.flags);
    source->setFlags(row.flags);
    EXPECT_EQ(internet->currentReachabilityStatus(), row.internet);
    EXPECT_EQ(localWiFi->currentReachabilityStatus(), row.localWiFi);
    EXPECT_EQ(internet->connectionRequired(), row.connectionRequired);
  }
  source->setFlags(std::nullopt);  // unreadable
  EXPECT_EQ(internet->currentReachabilityStatus(), QVReachability::NotReachable);
  EXPECT_EQ(localWiFi->currentReachabilityStatus(), QVReachability::NotReachable);
  EXPECT_FALSE(internet->connectionRequired());
}

TEST_F(QVReachabilityTest, StartedNotifierPostsEachChangeWithItselfAsSenderUntilStopped) {
  auto reachability = QVReachability::reachabilityForInternetConnection();
  ASSERT_TRUE(reachability->startNotifier());
  source->setFlags(0x2);
  source->setRadioAccessTechnology("CTRadioAccessTechnologyLTE");
  EXPECT_TRUE(senders.empty()) << "changes arrive on the run loop, not on the setter's stack";
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(senders, (std::vector<const void*>{reachability.get(), reachability.get()}));

  EXPECT_TRUE(reachability->stopNotifier());
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  source->setFlags(0x0);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(senders.size(), 2u);
}

TEST_F(QVReachabilityTest, NotifierDoesNotKeepItsObjectAliveAndTeardownStopsIt) {
  auto reachability = QVReachability::reachabilityForInternetConnection();
  ASSERT_TRUE(reachability->startNotifier());
  std::weak_ptr<QVReachability> weak = reachability;
  source->setFlags(0x2);  // a change already on its way to the loop
  reachability.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  QVRunLoop::main().runUntilIdle();
  EXPECT_TRUE(senders.empty());
}

TEST_F(QVReachabilityTest, NothingIsMadeOrStartedWhenTheSourceCannot) {
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_FALSE(QVReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&local)));
  EXPECT_TRUE(QVReachability::reachabilityWithHostName("example.org"));
  auto reachability = QVReachability::reachabilityForInternetConnection();
  source->setFailsToSchedule(true);
  EXPECT_FALSE(reachability->startNotifier());
  source->setFlags(0x2);
  QVRunLoop::main().runUntilIdle();
  EXPECT_TRUE(senders.empty());
  source->setFailsToCreateTargets(true);
  EXPECT_FALSE(QVReachability::reachabilityWithHostName("example.org"));
  EXPECT_FALSE(QVReachability::reachabilityForInternetConnection());
  EXPECT_FALSE(QVReachability::reachabilityForLocalWiFi());
}

}  // namespace
}  // namespace qv
