// A long run of posts that fail before they leave (requests that cannot be
// built) behind a slow post, over the real libcurl session: the HTTP
// callback thread walks the whole run when the slow post ends, and must do
// it on a stack of constant depth.
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTempFolder.h"
#include "support/QVTestHost.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

// Far more than a thread's stack holds as nested calls, even a default
// one; the threads of this test get a small stack besides.
constexpr uint64_t kImmediateFailures = 20000;
// (ThreadSanitizer refuses threads with less than 1 MiB.)
constexpr size_t kThreadStack = 1 << 20;

TEST(QVImmediateFailureChainTest, TensOfThousandsOfImmediateFailuresAreAllCachedWithoutACrash) {
  // Threads made from here on (the HTTP callback thread among them).
  pthread_attr_t attributes;
  ASSERT_EQ(::pthread_attr_init(&attributes), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kThreadStack), 0);
  ASSERT_EQ(::pthread_setattr_default_np(&attributes), 0);
  ::pthread_attr_destroy(&attributes);
  test::QVTestHost host("com.example.chain");
  // Every failed post is written and synced: a folder in memory keeps that
  // cheap (this process ends with the test).
  if (QVFileSystem::isDirectoryAtPath("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
  const test::QVTempFolder data;
  QVFileSystem::setHomeDirectory(data.path());
  test::QVTestHttpServer server;
  server.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kHoldThenAnswer));
  host.writeCoreConfig({{"PostMessageLevelWiFi", 3},
                        {"CompressPostMessage", false},
                        {"HasToPersistLocalCache", true}});
  host.defineModule("Slow", {{"PostMessageUrl", server.url("/collect")}});
  // A space makes the URL invalid: every post of this module fails at once.
  host.defineModule("Broken", {{"PostMessageUrl", server.url("/a b")}, {"URLEncoded", true}});
  auto core = QVCore::sharedInstance();
  auto service = QVQueueService::sharedInstance();
  ASSERT_TRUE(core->enable() && core->enableModule("Slow") && core->enableModule("Broken"));

  ASSERT_TRUE(core->postMessageForModuleName(test::messageWithOffset(0), "Slow"));
  core->flushQueues();
  ASSERT_TRUE(server.waitForRequests(1));  // held: the chain waits behind it
  for (uint64_t offset = 1; offset <= kImmediateFailures; ++offset) {
    ASSERT_TRUE(core->postMessageForModuleName(test::messageWithOffset(offset), "Broken"));
  }
  core->flushQueues();
  ASSERT_TRUE(QVRunLoop::main().runUntil(
      [&] { return service->cachedQueues().size() == kImmediateFailures + 1; }, 60s));
  server.release();
  ASSERT_TRUE(
      QVRunLoop::main().runUntil([&] { return service->completedFlushCycles() >= 1; }, 120s));

  EXPECT_EQ(server.requests().size(), 1u) << "nothing but the slow post reached the wire";
  const std::string folder = service->cachedQueuesDirectory();
  const auto names = test::namesIn(folder);
  EXPECT_EQ(names.size(), kImmediateFailures) << "one file a failed post";
  // Names carry the time of each failure: in name order, the posts' order.
  uint64_t next = 1;
  for (const auto& name : names) {
    const auto text = QVFileSystem::contentsAtPath(folder + "/" + name, 1 << 16).value_or("");
    if (QVValue::parse(text, nullptr, false).value("offset", uint64_t{0}) == next) ++next;
  }
  EXPECT_EQ(next, kImmediateFailures + 1) << "every message, once, in the order posted";
  core->disable();
}

}  // namespace
}  // namespace qv
