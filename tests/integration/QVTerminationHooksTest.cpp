// A Linux host that opted in to the termination hooks keeps what it queued
// when it is told to stop: a child process enables the core (saving queues at
// termination), queues a message and is stopped by SIGTERM, by SIGINT with a
// handler of the host's own, or by a normal exit. Each time its queue is in
// the cache folder afterwards and the process ends as it would have without
// the hooks.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVFileSystem.h"
#include "support/QVCrashTestSupport.h"

namespace qv {
namespace {

using test::QVCrashFolder;

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
