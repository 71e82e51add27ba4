// The delivery ledger through the real path: messages posted through the
// core to a server on 127.0.0.1, failed posts in real cache files, files
// planted in the cache folder. Every way a message can leave the core is
// walked once, and the ledger must balance at every quiet moment.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVFieldsMessage.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

class QVDeliveryLedgerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.writeCoreConfig({{"PostMessageLevelWiFi", 2},
                           {"CompressPostMessage", false},
                           {"HasToPersistLocalCache", true}});
    host_.defineModule("Json", {{"PostMessageUrl", server_.url("/json")}});
    host_.defineModule("Query", {{"PostMessageUrl", server_.url("/query")}, {"URLEncoded", true}});
    ASSERT_TRUE(core_->enable());
    ASSERT_TRUE(core_->enableModule("Json"));
    ASSERT_TRUE(core_->enableModule("Query"));
  }
  void TearDown() override { core_->disable(); }

  bool post(const std::string& module, std::shared_ptr<QVMessage> message, uint64_t offset,
            const char* session = "S") {
    message->setOffset(offset);
    return core_->postMessageForModuleNameWithSessionID(std::move(message), module, session);
  }
  // Flushes, and waits until the cycle has put everything on the send list
  // and every post has had its outcome.
  void flush() {
    core_->flushQueues();
    service_->flushDispatchQueue()->sync([] {});
    ASSERT_TRUE(QVRunLoop::main().runUntil(
        [&] {
          const auto connection = service_->serverConnection();
          return service_->cachedQueues().empty() && connection && !connection->isBusy();
        },
        20s));
  }
  void plant(const std::string& name, const std::string& text) {
    std::ofstream(service_->cachedQueuesDirectory() + "/" + name) << text;
  }
  QVLedgerCounts counts(const std::string& module) {
    const QVLedgerSnapshot ledger = core_->ledgerSnapshot();
    EXPECT_TRUE(ledger.balances()) << ledger.toJson();
    const auto it = ledger.modules.find(module);
    return it == ledger.modules.end() ? QVLedgerCounts{} : it->second;
  }

  test::QVTestHost host_{"com.example.ledger"};
  test::QVTestHttpServer server_;
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
  std::shared_ptr<QVQueueService> service_ = QVQueueService::sharedInstance();
};

TEST_F(QVDeliveryLedgerTest, EveryWayAMessageLeavesIsCountedAndTheLedgerBalances) {
  const auto plain = [] { return std::make_shared<QVMessage>(); };

  // Refused: level 0, a level above Wi-Fi's 2, a module nobody defined.
  auto loud = plain();
  loud->setLogLevel(3);
  EXPECT_FALSE(post("Json", loud, 1));
  auto silent = plain();
  silent->setLogLevel(0);
  EXPECT_FALSE(post("Json", silent, 2));
  EXPECT_FALSE(post("Nobody", plain(), 3));
  EXPECT_EQ(counts("Json").refused, 2u);
  EXPECT_EQ(counts("Nobody").refused, 1u);

  // Left out of the payload: a broken message ends its session's messages,
  // the good one after it included; another session still goes. A
  // URL-encoded module loses the broken message alone, and a message with
  // NaN can never be a query.
  ASSERT_TRUE(post("Json", plain(), 10, "A"));
  ASSERT_TRUE(post("Json", std::make_shared<test::QVFailingMessage>(), 11, "B"));
  ASSERT_TRUE(post("Json", plain(), 12, "B"));
  ASSERT_TRUE(post("Query", std::make_shared<test::QVFailingMessage>(), 13));
  ASSERT_TRUE(post("Query",
                   std::make_shared<test::QVFieldsMessage>(
                       QVValue{{"ratio", std::numeric_limits<double>::quiet_NaN()}}),
                   14));
  ASSERT_TRUE(post("Query", plain(), 15));
  ASSERT_NO_FATAL_FAILURE(flush());
  QVLedgerCounts json = counts("Json"), query = counts("Query");
  EXPECT_EQ(json.accepted, 3u);
  EXPECT_EQ(json.sent, 1u);
  EXPECT_EQ(json.droppedBy(QVDropReason::kInvalidMessage), 2u);
  EXPECT_EQ(query.sent, 1u);
  EXPECT_EQ(query.droppedBy(QVDropReason::kInvalidMessage), 1u);
  EXPECT_EQ(query.droppedBy(QVDropReason::kRequestNotBuildable), 1u);
  EXPECT_EQ(server_.requests().size(), 2u);

  // Failed with caching off; failed with a cache folder that cannot be
  // written; failed, cached, and sent at the next flush.
  core_->updateConfigForModuleNameWithData("QVCore", {{"HasToPersistLocalCache", false}});
  server_.addReply(test::QVTestReply::answer(500));
  ASSERT_TRUE(post("Json", plain(), 20));
  ASSERT_NO_FATAL_FAILURE(flush());
  EXPECT_EQ(counts("Json").droppedBy(QVDropReason::kCachingOff), 1u);

  core_->updateConfigForModuleNameWithData("QVCore", {{"HasToPersistLocalCache", true}});
  const std::string cache = service_->cachedQueuesDirectory();
  std::filesystem::remove_all(cache);
  std::ofstream(cache) << "a file where the folder was";
  server_.addReply(test::QVTestReply::answer(500));
  ASSERT_TRUE(post("Json", plain(), 21));
  ASSERT_TRUE(post("Json", plain(), 22));
  ASSERT_NO_FATAL_FAILURE(flush());
  EXPECT_EQ(counts("Json").droppedBy(QVDropReason::kCacheWriteFailed), 2u);
  std::filesystem::remove(cache);
  ASSERT_TRUE(service_->createCachedQueueFolder());

  server_.addReply(test::QVTestReply::answer(500));
  ASSERT_TRUE(post("Json", plain(), 30));
  ASSERT_TRUE(post("Json", plain(), 31));
  ASSERT_NO_FATAL_FAILURE(flush());
  json = counts("Json");
  EXPECT_EQ(json.failed, 5u);
  EXPECT_EQ(json.cached, 2u);
  EXPECT_EQ(json.sent, 1u);

  // Read back: the cached queue (2), a planted queue of 3, a file that is no
  // queue (counted as 1), and a queue of 2 for a module nobody knows.
  plant("Json_1.000000.json",
        R"({"messageVersion":"6.0.0.0","serialNumber":1,"sessions":[)"
        R"({"messages":[{"offset":40},{"offset":41}]},{"messages":[{"offset":42}]}]})");
  plant("Json_2.000000.json", "not a queue");
  plant("Nobody_1.000000.json", R"({"messageVersion":"6.0.0.0","serialNumber":1,"sessions":[)"
                                R"({"messages":[{"offset":50},{"offset":51}]}]})");
  ASSERT_NO_FATAL_FAILURE(flush());
  json = counts("Json");
  EXPECT_EQ(json.recovered, 6u);
  EXPECT_EQ(json.sent, 6u);
  EXPECT_EQ(json.droppedBy(QVDropReason::kCacheFileUnreadable), 1u);
  EXPECT_EQ(counts("Nobody").recovered, 2u);
  EXPECT_EQ(counts("Nobody").droppedBy(QVDropReason::kUnknownModule), 2u);

  // Nothing is left anywhere, and the whole ledger says so.
  for (const auto& module : {"Json", "Query", "Nobody"}) {
    const QVLedgerCounts c = counts(module);
    EXPECT_EQ(c.queued + c.inFlight, 0u) << module;
  }
  for (std::size_t reason = 0; reason < json.dropped.size(); ++reason) {
    const auto why = static_cast<QVDropReason>(reason);
    EXPECT_GT(
        json.droppedBy(why) + counts("Query").droppedBy(why) + counts("Nobody").droppedBy(why), 0u)
        << dropReasonName(why) << " was never walked";
  }
  EXPECT_TRUE(test::namesIn(cache).empty());
}

TEST_F(QVDeliveryLedgerTest, QueuedAndInFlightAreWhatTheCoreHoldsNow) {
  server_.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kStall));
  core_->updateConfigForModuleNameWithData("QVCore", {{"PostMessageTimeout", 1}});
  for (uint64_t offset = 1; offset <= 3; ++offset) {
    ASSERT_TRUE(post("Json", std::make_shared<QVMessage>(), offset));
  }
  ASSERT_TRUE(post("Query", std::make_shared<QVMessage>(), 4));
  EXPECT_EQ(counts("Json").queued, 3u);

  // The stalled post holds the Json queue in flight; the GET waits behind it.
  core_->flushQueues();
  ASSERT_TRUE(QVRunLoop::main().runUntil([&] { return !server_.requests().empty(); }, 20s));
  service_->flushDispatchQueue()->sync([] {});
  EXPECT_EQ(counts("Json").inFlight, 3u);
  EXPECT_EQ(counts("Query").queued, 1u);

  ASSERT_NO_FATAL_FAILURE(flush());
  const QVLedgerCounts json = counts("Json");
  EXPECT_EQ(json.failed, 3u);
  EXPECT_EQ(json.cached, 3u);
  EXPECT_EQ(json.inFlight, 0u);
  EXPECT_EQ(counts("Query").sent, 1u);

  core_->resetLedger();
  EXPECT_EQ(counts("Json").accepted, 0u);
  EXPECT_EQ(core_->ledgerSnapshotForModuleName("Json")->cached, 0u);
  EXPECT_FALSE(core_->ledgerSnapshotForModuleName("NeverSeen"));
}

}  // namespace
}  // namespace qv
