// A process that dies of an uncaught exception still sends what it queued:
// the child enables the core with a module posting to a server in the parent,
// queues a message and crashes.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <exception>
#include <thread>

#include "qvcore/core/QVCore.h"
#include "support/QVCrashTestSupport.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using test::QVCrashFolder;

const QVCrashFolder* crashFolder = nullptr;

void applicationTerminateHandler() {
  crashFolder->append("previous", test::describe(std::current_exception()));
}

TEST(QVCrashFlushTest, TheQueueReachesTheServerBeforeTheApplicationsHandlerRuns) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  QVCrashFolder folder;
  crashFolder = &folder;
  // The parent's server; the child reads its address from the environment.
  std::unique_ptr<test::QVTestHttpServer> server;
  std::thread answerer;
  bool previousRanBeforeTheAnswer = true;
  if (!folder.isChild()) {
    server = std::make_unique<test::QVTestHttpServer>();
    server->addReply(test::QVTestReply::of(test::QVTestReply::Kind::kHoldThenAnswer));
    ::setenv("QVTEST_CRASH_URL", server->url("/collect").c_str(), 1);
    // While the answer is held back the flush cannot end, so the
    // application's handler must not have run yet.
    answerer = std::thread([&] {
      server->waitForRequests(1);
      previousRanBeforeTheAnswer = folder.exists("previous");
      server->release();
    });
  }

  EXPECT_EXIT(
      {
        std::set_terminate(&applicationTerminateHandler);
        auto module = std::make_shared<test::QVCrashRecordingModule>("CrashPoster", folder);
        test::configureCore(folder.at("home"),
                            {{module, {{"PostMessageUrl", ::getenv("QVTEST_CRASH_URL")}}}});
        auto core = QVCore::sharedInstance();
        if (!core->enable() || !core->enableModule("CrashPoster")) ::_exit(3);
        if (!core->postMessageForModuleName(test::messageWithOffset(5), "CrashPoster")) ::_exit(4);
        test::crashWithUncaughtException("fatal");
      },
      ::testing::KilledBySignal(SIGABRT), "");
  answerer.join();
  ::unsetenv("QVTEST_CRASH_URL");

  ASSERT_EQ(server->requests().size(), 1u);
  const auto request = server->request(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path(), "/collect");
  const QVValue payload = QVValue::parse(request.body, nullptr, false);
  ASSERT_TRUE(payload.is_object()) << request.body;
  EXPECT_EQ(payload["sessions"][0]["messages"][0]["offset"], 5);
  EXPECT_EQ(folder.lines("told"), std::vector<std::string>{"fatal"});
  EXPECT_FALSE(previousRanBeforeTheAnswer);
  EXPECT_EQ(folder.lines("previous"), std::vector<std::string>{"fatal"});
}

}  // namespace
}  // namespace qv
