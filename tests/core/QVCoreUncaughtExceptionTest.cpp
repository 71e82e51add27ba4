// The core's terminate handler, in child processes that it ends. Traces in
// the shared folder: "told" (a module was told), "released" (a flush was
// about to be reported complete), "previous" (the application's handler ran).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVHttpSession.h"
#include "support/QVCrashTestSupport.h"
#include "support/QVFakeHttpSession.h"

namespace qv {
namespace {

using test::QVCrashFolder;

const QVCrashFolder* crashFolder = nullptr;

// The application's handler: what it sees, and whether a flush had been
// reported by then. It returns, which a terminate handler must not do.
void applicationTerminateHandler() {
  const std::string when = crashFolder->exists("released") ? "after release" : "early";
  crashFolder->append("previous", test::describe(std::current_exception()) + " " + when);
}

class QVCoreUncaughtExceptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    crashFolder = &folder;
  }

  // Child only: the application's handler, then the core enabled, with a
  // module that hears of crashes and one that cannot. (A second enable, which
  // chains the handler to itself, is held by QVCrashFlushTest.)
  std::shared_ptr<test::QVCrashRecordingModule> startCore(QVValue items = {{"Any", 1}}) {
    std::set_terminate(&applicationTerminateHandler);
    auto recorder = std::make_shared<test::QVCrashRecordingModule>("Recorder", folder);
    auto deaf = std::make_shared<test::QVTestModule>("Deaf", "");
    test::configureCore(folder.at("home"), {{recorder, items}, {deaf, {{"Any", 1}}}});
    auto core = QVCore::sharedInstance();
    EXPECT_TRUE(core->enable() && core->enableModule("Recorder") && core->enableModule("Deaf"));
    return recorder;
  }
  void releaseWhen(const std::string& trace, size_t lines) {
    std::thread([this, trace, lines] {
      folder.waitForLines(trace, lines);
      folder.append("released", "");
      QVCore::sharedInstance()->flushCompleted();
    }).detach();
  }

  QVCrashFolder folder;
};

// Nothing to send: only the completion reported by hand ends the wait, and
// those reported before the crash count for nothing.
TEST_F(QVCoreUncaughtExceptionTest, WaitsForAFlushToCompleteThenChainsAndAborts) {
  EXPECT_EXIT(
      {
        startCore();
        for (int i = 0; i < 3; ++i) QVCore::sharedInstance()->flushCompleted();
        releaseWhen("told", 1);
        test::crashWithUncaughtException("boom");
      },
      ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(folder.lines("told"), std::vector<std::string>{"boom"});
  EXPECT_EQ(folder.lines("previous"), std::vector<std::string>{"boom after release"});
}

// No exception: no module is told, yet the queued message is flushed and the
// end of that flush ends the wait.
TEST_F(QVCoreUncaughtExceptionTest, TerminatingWithoutAnExceptionStillFlushes) {
  EXPECT_EXIT(
      {
        auto session = std::make_shared<test::QVFakeHttpSession>();
        QVHttpSession::setShared(session);
        startCore({{"PostMessageUrl", "http://collector.test/crash"}});
        QVCore::sharedInstance()->postMessageForModuleName(test::messageWithOffset(3), "Recorder");
        std::thread([this, session] {
          const bool posted = session->waitForTasks(1);
          folder.append("released", "");
          if (posted) session->completeWithStatus(0, 200);
        }).detach();
        std::terminate();
      },
      ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_FALSE(folder.exists("told"));
  EXPECT_EQ(folder.lines("previous"), std::vector<std::string>{"none after release"});
}

TEST_F(QVCoreUncaughtExceptionTest, AFailingModuleEndsTheHandlingBeforeTheChain) {
  EXPECT_EXIT(
      {
        startCore()->failsWhenTold = true;
        releaseWhen("told", 1);
        test::crashWithUncaughtException("boom");
      },
      ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(folder.lines("told"), std::vector<std::string>{"boom"});
  EXPECT_FALSE(folder.exists("previous"));
}

}  // namespace
}  // namespace qv
