// A process that dies of an uncaught exception still sends what it queued
// before the application's own handler runs; with nothing queued the crash
// hook waits for ever for a flush that never ends, unless the host bounded
// the wait. Each case crashes a child process that enables the core with a
// module posting to a server in the parent.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <optional>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVFileSystem.h"
#include "support/QVCrashTestSupport.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using test::QVCrashFolder;
using Bound = std::optional<std::chrono::milliseconds>;

const QVCrashFolder* crashFolder = nullptr;

void applicationTerminateHandler() {
  crashFolder->append("previous", test::describe(std::current_exception()));
}

struct CrashCase {
  const char* name;
  bool queued;               // a message waits to be sent
  const char* variable;      // QVCORE_CRASH_FLUSH_TIMEOUT, unset when null
  std::optional<Bound> set;  // what the host sets through QVCore, if anything
  int enables;
  bool ends;          // the process ends (SIGABRT) rather than waits (until SIGALRM)
  bool previousRuns;  // the application's own handler is reached
};

// Child only: enables the core, queues a message if the case says so, and
// crashes.
[[noreturn]] void crash(const CrashCase& c, const QVCrashFolder& folder, const std::string& url) {
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  if (c.variable) ::setenv("QVCORE_CRASH_FLUSH_TIMEOUT", c.variable, 1);
  std::set_terminate(&applicationTerminateHandler);
  // Told of the crash, so the parent knows when the wait has begun.
  auto recorder = std::make_shared<test::QVCrashRecordingModule>("Recorder", folder);
  test::configureCore(folder.at("home"), {{recorder, {{"PostMessageUrl", url}}}});
  if (c.set) QVCore::setCrashFlushTimeout(*c.set);
  auto core = QVCore::sharedInstance();
  for (int i = 0; i < c.enables; ++i) {
    if (!core->enable()) ::_exit(3);
  }
  if (!core->enableModule("Recorder")) ::_exit(4);
  if (c.queued && !core->postMessageForModuleName(test::messageWithOffset(5), "Recorder")) {
    ::_exit(5);
  }
  // A child still waiting after two seconds is ended (an ending one has as
  // long as any test); the margin keeps a loaded machine from ending one
  // before its modules were told.
  ::alarm(c.ends ? 60 : 2);
  test::crashWithUncaughtException("fatal");
  ::_exit(6);  // not reached: a terminate handler does not return
}

TEST(QVCrashFlushTest, TheQueueIsSentBeforeTheApplicationsHandlerAndAHostMayBoundTheWait) {
  using std::chrono::milliseconds;
  const CrashCase cases[] = {
      {"queued", true, nullptr, std::nullopt, 1, true, true},
      {"variable", false, "0.2", std::nullopt, 1, true, true},
      {"setter", false, nullptr, Bound(milliseconds(200)), 1, true, true},
      {"setter over variable", false, "0.2", Bound(std::nullopt), 1, false, false},
      {"default", false, nullptr, std::nullopt, 1, false, false},
      {"unreadable variable", false, "soon", std::nullopt, 1, false, false},
      // The handler chained to itself shares the bound and stops there.
      {"two enables", false, "0.2", std::nullopt, 2, true, false},
  };
  for (const CrashCase& c : cases) {
    SCOPED_TRACE(c.name);
    QVCrashFolder folder;
    crashFolder = &folder;
    // Forked while this process has one thread; the server's address comes
    // down a pipe once it runs.
    int url[2];
    ASSERT_EQ(::pipe(url), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      char text[256] = {};
      crash(c, folder, ::read(url[0], text, sizeof text - 1) > 0 ? text : "");
    }
    test::QVTestHttpServer server;
    server.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kHoldThenAnswer));
    const std::string address = server.url("/collect");
    EXPECT_EQ(::write(url[1], address.data(), address.size()), ssize_t(address.size()));
    ::close(url[0]);
    ::close(url[1]);
    if (c.queued) {
      // While the answer is held back the flush cannot end, so the
      // application's handler must not have run yet.
      ASSERT_TRUE(server.waitForRequests(1));
      EXPECT_FALSE(folder.exists("previous"));
      server.release();
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == (c.ends ? SIGABRT : SIGALRM)) << status;
    const std::vector<std::string> told{"fatal"};
    EXPECT_EQ(folder.lines("told"), told);
    EXPECT_EQ(folder.lines("previous"), c.previousRuns ? told : std::vector<std::string>{});
    EXPECT_EQ(server.requests().size(), c.queued ? 1u : 0u);
    if (c.queued) {
      EXPECT_EQ(test::offsetsIn(server.request(0).body), test::Offsets{5});
    }
  }
}

// A Linux host that opted in to the termination hooks keeps what it queued
// when it is told to stop: a child process enables the core (saving queues at
// termination), queues a message and is stopped by SIGTERM, by SIGINT with a
// handler of the host's own, or by a normal exit. Each time its queue is in
// the cache folder afterwards and the process ends as it would have without
// the hooks.
void hostHandler(int) { ::_exit(5); }

// Posts one message with the hooks installed; answers only on failure.
void postWithHooks(const std::string& home, uint64_t offset) {
  auto module = std::make_shared<test::QVTestModule>("TermPoster", "");
  test::configureCore(home, {{module, {{"PostMessageUrl", "http://127.0.0.1:9/collect"}}}},
                      {{"DoPostAppGoesToClose", true}});
  auto core = QVCore::sharedInstance();
  if (!core->enable() || !core->enableModule("TermPoster")) ::_exit(3);
  if (!QVCore::installTerminationHooks()) ::_exit(4);
  if (!core->postMessageForModuleName(test::messageWithOffset(offset), "TermPoster")) ::_exit(6);
}

// Waits for a signal that ends the process; a broken chain ends it by
// SIGALRM instead.
void awaitSignal(int number) {
  ::alarm(20);
  ::kill(::getpid(), number);
  for (;;) ::pause();
}

test::Offsets cached(const std::string& home) {
  const std::string folder = home + "/Documents/QVCoreCachedQueues";
  test::Offsets offsets;
  for (const auto& name : test::namesIn(folder)) {
    const auto text = QVFileSystem::contentsAtPath(folder + "/" + name, 1 << 20).value_or("");
    const auto found = test::offsetsIn(text);
    offsets.insert(offsets.end(), found.begin(), found.end());
  }
  return offsets;
}

TEST(QVTerminationHooksTest, SignalsAndExitSaveTheQueuesThenEndAsTheHostWould) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  QVCrashFolder folder;

  EXPECT_EXIT(
      {
        postWithHooks(folder.at("term"), 11);
        awaitSignal(SIGTERM);
      },
      ::testing::KilledBySignal(SIGTERM), "");
  EXPECT_EQ(cached(folder.at("term")), test::Offsets{11});

  EXPECT_EXIT(
      {
        ::signal(SIGINT, hostHandler);
        postWithHooks(folder.at("int"), 12);
        awaitSignal(SIGINT);
      },
      ::testing::ExitedWithCode(5), "")
      << "the host's own handler runs after the hooks";
  EXPECT_EQ(cached(folder.at("int")), test::Offsets{12});

  EXPECT_EXIT(
      {
        postWithHooks(folder.at("exit"), 13);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(cached(folder.at("exit")), test::Offsets{13});
}

}  // namespace
}  // namespace qv
