// The lifecycle manager over the real queue service and a fake HTTP session:
// events come from the application on the main loop, whose clock is fake.
#include "qvcore/environment/QVApplicationLifecycleManager.h"

#include <gtest/gtest.h>

#include <thread>

#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using Event = QVApplication::LifecycleEvent;
using test::Offsets;

constexpr const char* kToBackground = "DoPostAppGoesToBackground";
constexpr const char* kFromBackground = "DoPostAppComesFromBackground";
constexpr const char* kLaunched = "DoPostAppIsLaunched";
constexpr const char* kClose = "DoPostAppGoesToClose";

class QVApplicationLifecycleManagerTest : public test::QVQueueServiceTestBase {
 protected:
  void SetUp() override {
    QVQueueServiceTestBase::SetUp();
    QVRunLoop::main().setClock(clock);
    QVLog::setSink([this](const std::string& line) { logged.push_back(line); });
  }
  void TearDown() override {
    QVLog::setSink(nullptr);
    QVRunLoop::main().setClock(nullptr);
    QVQueueServiceTestBase::TearDown();
  }

  // The core's items, bodies left plain.
  void setCoreItems(QVValue items) {
    items["CompressPostMessage"] = false;
    setItems("QVCore", items);
  }
  void deliver(Event event) {
    app.postLifecycleEvent(event);
    QVRunLoop::main().runUntilIdle();
  }
  void advance(QVClock::Duration step) {
    clock->advance(step);
    QVRunLoop::main().runUntilIdle();
    service->flushDispatchQueue()->sync([] {});  // lets a flush it started finish
  }
  size_t tasks() { return app.backgroundTaskNames().size(); }

  QVApplication& app = QVApplication::sharedApplication();
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  std::shared_ptr<QVApplicationLifecycleManager> manager = QVApplicationLifecycleManager::init();
  std::vector<std::string> logged;  // written on the main thread only
};

TEST_F(QVApplicationLifecycleManagerTest, ObservesWhatTheConfigurationAsksForAtStart) {
  auto& center = QVNotificationCenter::defaultCenter();
  const auto observed = [&](QVValue items, int starts = 1) {
    setCoreItems(std::move(items));
    for (int i = 0; i < starts; ++i) EXPECT_TRUE(manager->startMonitoringApplicationChanges());
    const size_t count = center.observationCount(&*manager);
    EXPECT_TRUE(manager->stopMonitoringApplicationChanges());
    EXPECT_EQ(center.observationCount(&*manager), 0u);
    return count;
  };
  EXPECT_EQ(observed({{kToBackground, true}, {kFromBackground, false}}), 1u);
  EXPECT_EQ(observed(QVValue::object()), 1u) << "background on by default, the rest off";
  EXPECT_EQ(observed({{kFromBackground, true}, {kLaunched, 1}, {kClose, true}}, 2), 8u)
      << "a second start observes everything twice";
  // Raw items are read as the platform reads text; the background item
  // through its accessor, which ignores text.
  EXPECT_EQ(observed({{kToBackground, "0"}, {kFromBackground, "YES"}, {kLaunched, " 1"}}), 3u);
  EXPECT_EQ(observed({{kToBackground, false}, {kClose, "no"}}), 0u);
}

// That the expiry tells the modules that asked and what reaches the server
// is held by the shell's test over a real server.
TEST_F(QVApplicationLifecycleManagerTest,
       BackgroundQueuesAreSentWhenTheGrantedTimeRunsOutIfATaskIsGranted) {
  ASSERT_TRUE(service->enable());
  post(defineModule("Alpha"), 7);
  setCoreItems({{kToBackground, true}});
  manager->startMonitoringApplicationChanges();
  app.setBackgroundTimeRemaining(12.5);

  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(app.backgroundTaskNames(), std::vector<std::string>{"BRVPostInBackground"});
  EXPECT_TRUE(manager->isBackgroundPostingRunning()) << "set at once";
  advance(1h);
  EXPECT_EQ(session->taskCount(), 0u) << "nothing is sent while time is left";

  // The expiry waits on the main thread for the post in flight; a server
  // answers it from elsewhere.
  std::thread server([s = session] {
    if (s->waitForTasks(1)) s->completeWithStatus(0, 200);
  });
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  server.join();
  EXPECT_EQ(logged, std::vector<std::string>{"Background Time:12.500000"});
  EXPECT_EQ(session->taskCount(), 1u);
  EXPECT_FALSE(manager->isBackgroundPostingRunning());
  EXPECT_EQ(tasks(), 0u) << "the task was ended";

  setCoreItems({{kToBackground, false}});  // read again at each event
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 0u);

  // A refused task leaves the flag set, and nothing runs at the expiry.
  setCoreItems({{kToBackground, true}});
  app.setRefusesBackgroundTasks(true);
  deliver(Event::kDidEnterBackground);
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  EXPECT_TRUE(manager->isBackgroundPostingRunning());
  EXPECT_EQ(logged.size(), 1u);
  manager->stopMonitoringApplicationChanges();
  EXPECT_FALSE(manager->isBackgroundPostingRunning());
}

// What was saved at termination is no longer queued, so a process that lives
// on sends it once, from the files.
TEST_F(QVApplicationLifecycleManagerTest, ReturningFlushesAtOnceActiveASecondLaterCloseSaves) {
  ASSERT_TRUE(service->enable());
  setCoreItems({{kFromBackground, true}, {kLaunched, true}, {kClose, true}});
  manager->startMonitoringApplicationChanges();
  auto module = defineModule("Alpha");
  post(module, 1);
  deliver(Event::kWillEnterForeground);
  advance(0s);
  ASSERT_EQ(session->taskCount(), 1u);
  session->completeWithStatus(0, 200);

  post(module, 2);
  deliver(Event::kDidBecomeActive);
  advance(999ms);
  EXPECT_EQ(session->taskCount(), 1u) << "not before a second has passed";
  advance(1ms);
  ASSERT_EQ(session->taskCount(), 2u);
  EXPECT_EQ(test::offsetsIn(body(1)), Offsets{2});
  session->completeWithStatus(1, 200);
  for (const auto& each : {module, defineModule("Beta"), defineModule("Gamma")}) post(each, 3);
  advance(1h);
  EXPECT_EQ(session->taskCount(), 2u) << "one event, one flush";

  deliver(Event::kWillTerminate);
  advance(1h);
  std::string modules;  // the text before "_" of each file name
  for (const auto& name : test::namesIn(service->cachedQueuesDirectory())) {
    modules += name.substr(0, name.find('_')) + " ";
  }
  EXPECT_EQ(modules, "Alpha Beta Gamma ");
  EXPECT_EQ(session->taskCount(), 2u);
  for (const auto& [name, queue] : service->moduleQueues()) EXPECT_TRUE(queue->isEmpty()) << name;
}

TEST_F(QVApplicationLifecycleManagerTest, StoppingNeedsNoStartAndTheServiceKeepsOneManager) {
  EXPECT_TRUE(manager->stopMonitoringApplicationChanges());
  EXPECT_FALSE(manager->isBackgroundPostingRunning());

  auto environment = QVEnvironmentalSerivce::sharedInstance();
  EXPECT_TRUE(environment->stopMonitoringApplicationChanges()) << "no manager yet";
  setCoreItems({{kToBackground, true}});
  EXPECT_TRUE(environment->startMonitoringApplicationChanges() &&
              environment->startMonitoringApplicationChanges());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 2u) << "two starts, each event handled twice";
  // One stop ends both observations: both starts reached the same manager.
  EXPECT_TRUE(environment->stopMonitoringApplicationChanges());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 2u);

  // Enabling the service rebuilds the observations rather than adding to
  // them, however often it runs.
  QVReachabilitySource::setShared(std::make_shared<QVHostReachabilitySource>());
  ASSERT_TRUE(environment->enable() && environment->enable());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 3u) << "one enable's worth";
  EXPECT_TRUE(environment->disable());
  QVReachabilitySource::setShared(nullptr);
}

}  // namespace
}  // namespace qv
