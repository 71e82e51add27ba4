// Lifecycle events and background tasks of the host application.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <thread>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {
namespace {

using Event = QVApplication::LifecycleEvent;

TEST(QVApplicationLifecycleTest, EventsReachObserversOnTheMainLoopAfterTheStateMoved) {
  QVApplication& app = QVApplication::sharedApplication();
  std::string seen;  // each notification's name and the state when it arrives
  int observer = 0;
  QVNotificationCenter::defaultCenter().addObserver(&observer, "", &app, [&](const auto& n) {
    seen += n.name + ":" + std::to_string(app.applicationState().value_or(-1)) + " ";
  });
  std::thread([&] { app.postLifecycleEvent(Event::kDidEnterBackground); }).join();  // from a host thread
  EXPECT_EQ(seen, "") << "delivered only when the main loop runs";
  QVRunLoop::main().runUntilIdle();
  for (Event event : {Event::kWillEnterForeground, Event::kDidBecomeActive, Event::kWillTerminate,
                      Event::kDidEnterBackground, Event::kWillTerminate}) {
    app.postLifecycleEvent(event);
    QVRunLoop::main().runUntilIdle();
  }
  EXPECT_EQ(
      seen,
      "UIApplicationDidEnterBackgroundNotification:2 "
      "UIApplicationWillEnterForegroundNotification:1 "
      "UIApplicationDidBecomeActiveNotification:0 UIApplicationWillTerminateNotification:0 "
      "UIApplicationDidEnterBackgroundNotification:2 UIApplicationWillTerminateNotification:2 ");
  QVNotificationCenter::defaultCenter().removeObserver(&observer);
}

TEST(QVApplicationLifecycleTest, BackgroundTasksExpireOnlyWhenTheHostSaysSoAndOnlyOnce) {
  QVApplication& app = QVApplication::sharedApplication();
  std::vector<std::string> expired;
  QVBackgroundTaskIdentifier upload = kUIBackgroundTaskInvalid;
  upload = app.beginBackgroundTaskWithNameExpirationHandler("upload", [&] {
    expired.push_back("upload");
    app.endBackgroundTask(upload);  // a handler may end its own task
  });
  const auto save =
      app.beginBackgroundTaskWithNameExpirationHandler("save", [&] { expired.push_back("save"); });
  const auto ended = app.beginBackgroundTaskWithNameExpirationHandler(
      "ended", [&] { expired.push_back("ended"); });
  EXPECT_NE(upload, kUIBackgroundTaskInvalid);
  EXPECT_NE(upload, save);
  app.endBackgroundTask(ended);
  app.endBackgroundTask(ended);
  app.endBackgroundTask(kUIBackgroundTaskInvalid);
  EXPECT_EQ(app.backgroundTaskNames(), (std::vector<std::string>{"upload", "save"}));

  QVRunLoop::main().runUntilIdle();
  app.expireBackgroundTasks();
  EXPECT_TRUE(expired.empty()) << "never by itself, and only on the main loop";
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(expired, (std::vector<std::string>{"upload", "save"}));
  EXPECT_EQ(app.backgroundTaskNames(), std::vector<std::string>{"save"});
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(expired.size(), 2u) << "no handler runs twice";

  auto witness = std::make_shared<int>(0);
  app.setRefusesBackgroundTasks(true);
  EXPECT_EQ(app.beginBackgroundTaskWithNameExpirationHandler("no", [witness] { ++*witness; }),
            kUIBackgroundTaskInvalid);
  EXPECT_EQ(witness.use_count(), 1) << "a refused task's handler is not kept";
}

TEST(QVApplicationLifecycleTest, RemainingTimeIsUnlimitedUntilTheHostReportsIt) {
  QVApplication& app = QVApplication::sharedApplication();
  const double unlimited = std::numeric_limits<double>::max();
  EXPECT_EQ(app.backgroundTimeRemaining(), unlimited);
  for (const auto& [reported, remaining] : {std::pair<std::optional<double>, double>{29.5, 29.5},
                                            {std::numeric_limits<double>::quiet_NaN(), 0.0},
                                            {std::nullopt, unlimited}}) {
    app.setBackgroundTimeRemaining(reported);
    EXPECT_EQ(app.backgroundTimeRemaining(), remaining);
  }
}

TEST(QVApplicationTest, HostFactsWithLinuxDefaults) {
  QVApplication& app = QVApplication::sharedApplication();
  EXPECT_EQ(app.applicationState(), 0);
  app.setStatusBarOrientation(5);  // not an interface orientation
  EXPECT_EQ(app.statusBarOrientation(), 0);

  struct utsname u {};
  ASSERT_EQ(::uname(&u), 0);
  const std::string linuxAgent = app.userAgent();
  EXPECT_EQ(linuxAgent, std::string("Mozilla/5.0 (X11; ") + u.sysname + " " + u.machine +
                            ") QVCore/" + QVCore::sharedInstance()->frameworkVersion());
  app.setUserAgent("Mozilla/5.0 (iPhone)");
  EXPECT_EQ(app.userAgent(), "Mozilla/5.0 (iPhone)");
  app.setUserAgent("");
  EXPECT_EQ(app.userAgent(), linuxAgent);
}

}  // namespace
}  // namespace qv
