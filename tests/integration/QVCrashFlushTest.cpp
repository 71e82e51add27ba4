// A process that dies of an uncaught exception still sends what it queued:
// the child enables the core with a module posting to a server in the parent,
// queues a message and crashes. With nothing queued the child waits for ever,
// unless the host bounded the wait.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <optional>
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
  EXPECT_EQ(request.method + " " + request.path(), "POST /collect");
  EXPECT_EQ(test::offsetsIn(request.body), test::Offsets{5});
  EXPECT_EQ(folder.lines("told"), std::vector<std::string>{"fatal"});
  EXPECT_FALSE(previousRanBeforeTheAnswer);
  EXPECT_EQ(folder.lines("previous"), std::vector<std::string>{"fatal"});
}

using Bound = std::optional<std::chrono::milliseconds>;

struct BoundCase {
  const char* name;
  const char* variable;      // QVCORE_CRASH_FLUSH_TIMEOUT, unset when null
  std::optional<Bound> set;  // what the host sets through QVCore, if anything
  int enables;
  bool ends;          // the process ends (SIGABRT) rather than waits
  bool previousRuns;  // the application's own handler is reached
};

// Child only: enables the core with nothing to send and crashes.
[[noreturn]] void crashWithNothingQueued(const BoundCase& c, const QVCrashFolder& folder) {
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  if (c.variable) ::setenv("QVCORE_CRASH_FLUSH_TIMEOUT", c.variable, 1);
  std::set_terminate(&applicationTerminateHandler);
  // Told of the crash, so the parent knows when the wait has begun.
  auto recorder = std::make_shared<test::QVCrashRecordingModule>("Recorder", folder);
  test::configureCore(folder.at("home"), {{recorder, {{"Any", 1}}}});
  if (c.set) QVCore::setCrashFlushTimeout(*c.set);
  auto core = QVCore::sharedInstance();
  for (int i = 0; i < c.enables; ++i) {
    if (!core->enable()) ::_exit(3);
  }
  if (!core->enableModule("Recorder")) ::_exit(4);
  test::crashWithUncaughtException("nothing queued");
  ::_exit(5);  // not reached: a terminate handler does not return
}

// The child's wait status once it ended, or none if it still runs after
// limit (it is killed then).
std::optional<int> statusWithin(pid_t child, std::chrono::milliseconds limit) {
  int status = 0;
  for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (::waitpid(child, &status, WNOHANG) == child) return status;
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
  return std::nullopt;
}

TEST(QVCrashFlushTest, AHostMayBoundTheWaitForAFlushThatNeverEnds) {
  using std::chrono::milliseconds;
  const BoundCase cases[] = {
      {"variable", "0.2", std::nullopt, 1, true, true},
      {"setter", nullptr, Bound(milliseconds(200)), 1, true, true},
      {"setter over variable", "0.2", Bound(std::nullopt), 1, false, false},
      {"default", nullptr, std::nullopt, 1, false, false},
      {"unreadable variable", "soon", std::nullopt, 1, false, false},
      // The handler chained to itself shares the bound and stops there.
      {"two enables", "0.2", std::nullopt, 2, true, false},
  };
  for (const BoundCase& c : cases) {
    SCOPED_TRACE(c.name);
    QVCrashFolder folder;
    crashFolder = &folder;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) crashWithNothingQueued(c, folder);
    // A waiting child is given a moment once its handler has begun, then
    // killed; an ending one has as long as any test.
    if (!c.ends) EXPECT_TRUE(folder.waitForLines("told", 1));
    const auto status = statusWithin(child, milliseconds(c.ends ? 60000 : 1000));
    ASSERT_EQ(status.has_value(), c.ends);
    if (status) EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
    const std::vector<std::string> told{"nothing queued"};
    EXPECT_EQ(folder.lines("told"), told);
    EXPECT_EQ(folder.lines("previous"), c.previousRuns ? told : std::vector<std::string>{});
  }
}

}  // namespace
}  // namespace qv
