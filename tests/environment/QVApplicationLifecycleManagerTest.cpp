// The lifecycle manager over the real queue service and a fake HTTP session:
// events come from the application on the main loop, whose clock is fake.
#include "qvcore/environment/QVApplicationLifecycleManager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <thread>

#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using Event = QVApplication::LifecycleEvent;
using test::Offsets;
using test::offsetsIn;

class QVTerminatingModule : public test::QVTestModule, public QVAppTerminationObserver {
 public:
  using QVTestModule::QVTestModule;
  void brvAppWillTerminate() override { ++terminations; }
  std::atomic<int> terminations{0};
};

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
  Offsets sent(size_t post) const { return offsetsIn(body(post)); }
  void deliver(Event event) {
    app.postLifecycleEvent(event);
    QVRunLoop::main().runUntilIdle();
  }
  void advance(QVClock::Duration step) {
    clock->advance(step);
    QVRunLoop::main().runUntilIdle();
    service->flushDispatchQueue()->sync([] {});  // lets a flush it started finish
  }

  QVApplication& app = QVApplication::sharedApplication();
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  std::shared_ptr<QVApplicationLifecycleManager> manager = QVApplicationLifecycleManager::init();
  std::vector<std::string> logged;  // written on the main thread only
};

TEST_F(QVApplicationLifecycleManagerTest, ObservesWhatTheConfigurationAsksForAtStart) {
  auto observed = [&] { return QVNotificationCenter::defaultCenter().observationCount(&*manager); };
  setCoreItems({{"DoPostAppGoesToBackground", true}, {"DoPostAppComesFromBackground", false}});
  EXPECT_TRUE(manager->startMonitoringApplicationChanges());
  EXPECT_EQ(observed(), 1u);
  for (Event e : {Event::kWillEnterForeground, Event::kDidBecomeActive, Event::kWillTerminate}) {
    deliver(e);
  }
  EXPECT_TRUE(app.backgroundTaskNames().empty());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(app.backgroundTaskNames(), std::vector<std::string>{"BRVPostInBackground"});
  EXPECT_TRUE(manager->stopMonitoringApplicationChanges());
  EXPECT_EQ(observed(), 0u);

  setCoreItems(QVValue::object());  // background is on by default, the rest off
  manager->startMonitoringApplicationChanges();
  EXPECT_EQ(observed(), 1u);
  manager->stopMonitoringApplicationChanges();

  setCoreItems({{"DoPostAppGoesToBackground", false},
                {"DoPostAppComesFromBackground", true},
                {"DoPostAppIsLaunched", 1},
                {"DoPostAppGoesToClose", true}});
  manager->startMonitoringApplicationChanges();
  manager->startMonitoringApplicationChanges();
  EXPECT_EQ(observed(), 6u) << "a second start observes everything twice";
  manager->stopMonitoringApplicationChanges();

  // Raw items written as text count as the platform reads text; the
  // background item is read through its accessor, which ignores text.
  setCoreItems({{"DoPostAppGoesToBackground", "0"},
                {"DoPostAppComesFromBackground", "YES"},
                {"DoPostAppIsLaunched", " 1"},
                {"DoPostAppGoesToClose", "no"}});
  manager->startMonitoringApplicationChanges();
  EXPECT_EQ(observed(), 3u);
}

TEST_F(QVApplicationLifecycleManagerTest, BackgroundQueuesAreSentWhenTheGrantedTimeRunsOut) {
  ASSERT_TRUE(service->enable());
  auto module = defineModule<QVTerminatingModule>("Alpha");
  post(module, 7);
  setCoreItems({{"DoPostAppGoesToBackground", true}});
  manager->startMonitoringApplicationChanges();
  app.setBackgroundTimeRemaining(12.5);

  deliver(Event::kDidEnterBackground);
  EXPECT_TRUE(manager->isBackgroundPostingRunning()) << "set at once";
  advance(1h);
  EXPECT_EQ(session->taskCount(), 0u) << "nothing is sent while time is left";

  // The expiry waits on the main thread for the post in flight; a server
  // answers it from elsewhere.
  std::thread server([session = session] {
    for (int i = 0; i < 3000 && session->taskCount() == 0; ++i) std::this_thread::sleep_for(10ms);
    if (session->taskCount() > 0) session->completeWithStatus(0, 200);
  });
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  server.join();
  EXPECT_EQ(logged, std::vector<std::string>{"Background Time:12.500000"});
  EXPECT_EQ(module->terminations, 1);
  ASSERT_EQ(session->taskCount(), 1u);
  EXPECT_EQ(sent(0), Offsets{7});
  EXPECT_FALSE(manager->isBackgroundPostingRunning());
  EXPECT_TRUE(app.backgroundTaskNames().empty()) << "the task was ended";

  setCoreItems({{"DoPostAppGoesToBackground", false}});  // read again at each event
  deliver(Event::kDidEnterBackground);
  EXPECT_TRUE(app.backgroundTaskNames().empty());
}

TEST_F(QVApplicationLifecycleManagerTest, ARefusedBackgroundTaskLeavesThePostingFlagSet) {
  setCoreItems({{"DoPostAppGoesToBackground", true}});
  manager->startMonitoringApplicationChanges();
  app.setRefusesBackgroundTasks(true);
  deliver(Event::kDidEnterBackground);
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  EXPECT_TRUE(manager->isBackgroundPostingRunning());
  EXPECT_TRUE(logged.empty());
  manager->stopMonitoringApplicationChanges();
  EXPECT_FALSE(manager->isBackgroundPostingRunning());
}

TEST_F(QVApplicationLifecycleManagerTest, ReturningFlushesAtOnceAndBecomingActiveASecondLater) {
  ASSERT_TRUE(service->enable());
  setCoreItems({{"DoPostAppComesFromBackground", true}, {"DoPostAppIsLaunched", true}});
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
  EXPECT_EQ(sent(1), Offsets{2});
  session->completeWithStatus(1, 200);
  post(module, 3);
  advance(1h);
  EXPECT_EQ(session->taskCount(), 2u) << "one event, one flush";
}

TEST_F(QVApplicationLifecycleManagerTest, TerminatingSavesEveryModuleQueueAndSendsNothing) {
  ASSERT_TRUE(service->enable());
  for (const char* name : {"Alpha", "Beta", "Gamma"}) post(defineModule(name), 1);
  setCoreItems({{"DoPostAppGoesToClose", true}});
  manager->startMonitoringApplicationChanges();
  deliver(Event::kWillTerminate);
  advance(1h);
  std::multiset<std::string> modules;  // named by the text before "_"
  for (const auto& file : std::filesystem::directory_iterator(service->cachedQueuesDirectory())) {
    const std::string name = file.path().filename().string();
    modules.insert(name.substr(0, name.find('_')));
  }
  EXPECT_EQ(modules, (std::multiset<std::string>{"Alpha", "Beta", "Gamma"}));
  EXPECT_EQ(session->taskCount(), 0u);
  // What was saved is no longer queued, so a process that lives on sends
  // it once, from the files.
  for (const auto& [name, queue] : service->moduleQueues()) EXPECT_TRUE(queue->isEmpty()) << name;
}

TEST_F(QVApplicationLifecycleManagerTest, StoppingNeedsNoStartAndTheServiceKeepsOneManager) {
  EXPECT_TRUE(manager->stopMonitoringApplicationChanges());
  EXPECT_FALSE(manager->isBackgroundPostingRunning());

  auto environment = QVEnvironmentalSerivce::sharedInstance();
  EXPECT_TRUE(environment->stopMonitoringApplicationChanges()) << "no manager yet";
  setCoreItems({{"DoPostAppGoesToBackground", true}});
  EXPECT_TRUE(environment->startMonitoringApplicationChanges());
  EXPECT_TRUE(environment->startMonitoringApplicationChanges());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(app.backgroundTaskNames().size(), 2u) << "two starts, each event handled twice";
  // One stop ends both observations: both starts reached the same manager.
  EXPECT_TRUE(environment->stopMonitoringApplicationChanges());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(app.backgroundTaskNames().size(), 2u);

  // Enabling the service rebuilds the observations rather than adding to
  // them, however often it runs.
  auto reachability = std::make_shared<QVHostReachabilitySource>();
  QVReachabilitySource::setShared(reachability);
  ASSERT_TRUE(environment->enable());
  ASSERT_TRUE(environment->enable());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(app.backgroundTaskNames().size(), 3u) << "one enable's worth";
  EXPECT_TRUE(environment->disable());
  QVReachabilitySource::setShared(nullptr);
}

}  // namespace
}  // namespace qv
