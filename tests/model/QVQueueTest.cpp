#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVQueue.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using test::messageWithOffset;

// "id:offset,offset,;" for each session of a payload, in payload order.
std::string contents(const QVQueue& queue) {
  std::string out;
  const QVValue payload = QVValue::parse(queue.toJson());
  for (const auto& session : payload.at("sessions")) {
    out += session.at("id").get<std::string>() + ":";
    for (const auto& message : session.at("messages")) out += message.at("offset").dump() + ",";
    out += ";";
  }
  return out;
}

// A queue made from cached text sends that text as it is. (A flush's new
// serial number and emptied queue are held by the snapshot and cut tests.)
TEST(QVQueueTest, PayloadTopLevelSerialNumbersAndCachedTextSentUnchanged) {
  auto queue = std::make_shared<QVQueue>();
  EXPECT_EQ(queue->toJson(), test::queueText(1));
  // No identifier: the core's session, the queue's first current one.
  ASSERT_TRUE(queue->postMessageToSessionID(messageWithOffset(1), std::nullopt));
  EXPECT_EQ(queue->sessionForID(QVCore::sharedInstance()->currentSessionID())->messageCount(), 1u);

  std::shared_ptr<QVLifecycleObject> module = std::make_shared<test::QVTestModule>("Cached", "");
  auto cached = QVQueue::initWithJSONAndModule(test::queueText(9), module);
  cached->postMessageToSessionID(messageWithOffset(1), "S1");
  EXPECT_EQ(cached->toJson(), test::queueText(9));
  module.reset();
  EXPECT_EQ(cached->module(), nullptr);
}

TEST(QVQueueTest, SessionLookupRules) {
  auto queue = std::make_shared<QVQueue>();
  EXPECT_EQ(queue->currentSessionID(), QVCore::sharedInstance()->currentSessionID());
  EXPECT_FALSE(queue->postMessageToSessionID(messageWithOffset(0), ""));
  EXPECT_FALSE(queue->postMessageToSessionID(nullptr, "S1"));
  EXPECT_EQ(queue->sessionCount(), 0u);
  EXPECT_EQ(queue->currentSessionStartTime(), 0u);

  ASSERT_TRUE(queue->postMessageToSessionID(messageWithOffset(1), "S1"));
  const uint64_t s1Start = queue->sessionForID("S1")->startTime();
  EXPECT_EQ(queue->currentSessionStartTime(), s1Start);
  // So that the two sessions' start times differ.
  while (QVCoreHelper::sharedInstance()->now() == s1Start) std::this_thread::yield();
  // Looking up makes a session but does not make it current.
  auto s2 = queue->sessionForID("S2");
  EXPECT_EQ(queue->currentSessionID(), "S1");
  EXPECT_EQ(queue->currentSessionStartTime(), s2->startTime());
  ASSERT_TRUE(queue->postMessageToSessionID(messageWithOffset(2), "S1"));
  ASSERT_TRUE(queue->postMessageToSessionID(messageWithOffset(3), std::nullopt));
  EXPECT_EQ(queue->currentSessionStartTime(), s2->startTime());
  ASSERT_TRUE(queue->postMessageToSessionID(messageWithOffset(4), "S2"));
  ASSERT_TRUE(queue->postMessageToSessionID(messageWithOffset(5), std::nullopt));
  EXPECT_EQ(queue->sessionForID("S2"), s2);
  EXPECT_EQ(queue->currentSessionID(), "S2");
  EXPECT_EQ(contents(*queue), "S1:1,2,3,;S2:4,5,;");
}

TEST(QVQueueTest, SnapshotSharesSessionsAndFlushClosesOnlyWhatItTook) {
  auto live = QVQueue::initForModule(nullptr);
  live->postMessageToSessionID(messageWithOffset(1), "S1");
  auto shared = live->sessionForID("S1");
  auto snapshot = QVQueue::initWithQueue(live);
  EXPECT_EQ(snapshot->sessionForID("S1"), shared);
  EXPECT_EQ(snapshot->currentSessionStartTime(), 0u);
  EXPECT_EQ(snapshot->currentSessionID(), "S1");

  // Between the snapshot and the flush: into the shared session, and a new one.
  live->postMessageToSessionID(messageWithOffset(2), "S1");
  live->postMessageToSessionID(messageWithOffset(3), "S2");
  live->flush();
  EXPECT_EQ(live->serialNumber(), 2);
  EXPECT_EQ(snapshot->serialNumber(), 1);
  EXPECT_TRUE(shared->isClosed());
  // A post to S1 now opens a fresh session in the live queue.
  ASSERT_TRUE(live->postMessageToSessionID(messageWithOffset(4), "S1"));
  EXPECT_EQ(contents(*snapshot), "S1:1,2,;");
  EXPECT_EQ(contents(*live), "S2:3,;S1:4,;");
}

// Posters on several threads while a flusher snapshots, flushes and
// serialises: every accepted message is sent once or is still queued.
TEST(QVQueueTest, ConcurrentPostsAreSentExactlyOnce) {
  auto live = std::make_shared<QVQueue>();
  constexpr int kThreads = 6, kPosts = 20000, kPostsPerFlush = 25;
  std::atomic<int> running{kThreads}, flushes{0};
  std::vector<std::vector<uint64_t>> accepted(kThreads);
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (uint64_t i = 0; i < kPosts; ++i) {
        // Posting and flushing keep pace, so that they overlap throughout.
        while (flushes < static_cast<int>(i / kPostsPerFlush)) std::this_thread::yield();
        const uint64_t offset = t * 1000000000ull + i;
        const auto id = i % 4 == 0 ? std::optional<std::string>() : "S" + std::to_string(i % 40);
        if (live->postMessageToSessionID(messageWithOffset(offset), id))
          accepted[t].push_back(offset);
      }
      --running;
    });
  }
  std::multiset<uint64_t> seen;
  auto collect = [&](const QVQueue& queue) {
    for (const auto& [id, session] : queue.sessions()) {
      // Each thread's messages keep its order within a session.
      std::vector<uint64_t> last(kThreads, 0);
      for (const auto& message : session->jsonSerializedMessages()) {
        const auto offset = message.at("offset").get<uint64_t>();
        ASSERT_LE(last[offset / 1000000000ull], offset);
        last[offset / 1000000000ull] = offset + 1;
        seen.insert(offset);
      }
    }
  };
  while (running > 0) {
    auto snapshot = QVQueue::initWithQueue(live);
    std::this_thread::yield();  // lets posts land between the snapshot and the flush
    live->flush();
    EXPECT_EQ(snapshot->serialNumber(), ++flushes);
    collect(*snapshot);
  }
  for (auto& poster : posters) poster.join();
  collect(*live);

  std::multiset<uint64_t> expected;
  for (const auto& offsets : accepted) expected.insert(offsets.begin(), offsets.end());
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(expected.size(), static_cast<size_t>(kThreads * kPosts));
}

// Two threads take turns, each post starting only after the other's has
// returned, while flushes cut the queue: whatever lane each message went
// into, the payloads (read through toJson and through the sessions' lists,
// as the URL-encoded path does) carry them once each, in posting order.
TEST(QVQueueTest, TurnTakingPostsKeepTheirOrderAcrossFlushes) {
  auto live = std::make_shared<QVQueue>();
  constexpr uint64_t kPosts = 4000;
  std::atomic<uint64_t> next{0};
  std::atomic<bool> refused{false};
  std::vector<std::thread> posters;
  for (uint64_t t = 0; t < 2; ++t) {
    posters.emplace_back([&, t] {
      for (uint64_t k = t; k < kPosts; k += 2) {
        while (next.load() != k) std::this_thread::yield();
        if (!live->postMessageToSessionID(messageWithOffset(k), "S")) refused = true;
        next.store(k + 1);
      }
    });
  }
  std::vector<uint64_t> sent;
  auto collect = [&](const QVQueue& queue, bool asPayload) {
    if (asPayload) {
      const QVValue payload = QVValue::parse(queue.toJson());
      for (const auto& session : payload.at("sessions"))
        for (const auto& message : session["messages"]) sent.push_back(message["offset"]);
      return;
    }
    for (const auto& [id, session] : queue.sessions())
      for (const auto& message : session->messages()) sent.push_back(message->offset());
  };
  for (int flushes = 0; next.load() < kPosts; ++flushes) {
    auto snapshot = QVQueue::initWithQueue(live);
    live->flush();
    collect(*snapshot, flushes % 2 == 0);
  }
  for (auto& poster : posters) poster.join();
  collect(*live, true);

  EXPECT_FALSE(refused);
  ASSERT_EQ(sent.size(), kPosts);
  for (uint64_t k = 0; k < kPosts; ++k) ASSERT_EQ(sent[k], k) << "message " << k;
}

}  // namespace
}  // namespace qv
