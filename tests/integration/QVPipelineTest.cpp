// The whole road of a message: a module posts through QVCore, the queue
// service flushes, the real libcurl session carries the payload to a server
// on 127.0.0.1, and what failed comes back from disk at the next flush.
#include <gtest/gtest.h>

#include <chrono>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVReachabilityFlags.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVFakeInterfaceAddressSource.h"
#include "support/QVGzip.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::offsetsIn;

class QVPipelineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.writePlist("App/Info.plist", {{"CFBundleIdentifier", "com.example.pipeline"}});
    QVBundle::setMainBundlePath(folder_.at("App"));
    QVFileSystem::setHomeDirectory(folder_.at("home"));
    // Wi-Fi as the host reports it: no netlink, no machine interfaces.
    reachability_->setFlags(kQVReachabilityFlagsReachable);
    QVReachabilitySource::setShared(reachability_);
    QVInterfaceAddressSource::setShared(addresses_);
  }
  void TearDown() override {
    core_->disable();
    QVInterfaceAddressSource::setShared(nullptr);
    QVReachabilitySource::setShared(nullptr);
    QVFileSystem::setHomeDirectory("");
    QVBundle::setMainBundlePath("");
  }

  // Starts the core and the module "Collector" with these items.
  void start(QVValue coreItems, QVValue moduleItems) {
    coreItems["PostMessageLevelWiFi"] = 3;
    coreItems["PostMessageTimeout"] = 10;
    folder_.writePlist("App/QVCoreSettings.bundle/QVCoreBasicConfig.plist", coreItems);
    moduleItems["PostMessageUrl"] = server_.url("/collect");
    folder_.writePlist("Collector.bundle/BasicConfig.plist", moduleItems);
    test::QVTestModule::define("Collector", folder_.at("Collector.bundle"));
    ASSERT_TRUE(core_->enable());
    ASSERT_TRUE(core_->enableModule("Collector"));
  }
  void postThroughCore(uint64_t from, uint64_t to) {
    for (uint64_t offset = from; offset <= to; ++offset) {
      EXPECT_TRUE(core_->postMessageForModuleName(test::messageWithOffset(offset), "Collector"));
    }
  }
  bool waitFor(const std::function<bool()>& predicate) {
    return QVRunLoop::main().runUntil(predicate, 30s);
  }
  std::vector<std::string> cachedFiles() const {
    return test::namesIn(service_->cachedQueuesDirectory());
  }

  test::QVTestHttpServer server_;
  test::QVTempFolder folder_;
  std::shared_ptr<QVHostReachabilitySource> reachability_ =
      std::make_shared<QVHostReachabilitySource>();
  std::shared_ptr<test::QVFakeInterfaceAddressSource> addresses_ =
      std::make_shared<test::QVFakeInterfaceAddressSource>();
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
  std::shared_ptr<QVQueueService> service_ = QVQueueService::sharedInstance();
};

TEST_F(QVPipelineTest, ARefusedCompressedPayloadComesBackFromDiskAtTheNextFlush) {
  start({{"CompressPostMessage", true}, {"HasToPersistLocalCache", true}}, QVValue::object());
  server_.addReply(test::QVTestReply::answer(500));
  postThroughCore(1, 3);
  core_->flushQueues();
  ASSERT_TRUE(waitFor([&] { return service_->completedFlushCycles() == 1; }));
  ASSERT_EQ(server_.requests().size(), 1u);
  const auto sent = server_.request(0);
  EXPECT_EQ(sent.method + " " + sent.path(), "POST /collect");
  EXPECT_EQ(sent.header("Content-Encoding"), "gzip");
  EXPECT_EQ(offsetsIn(test::gunzip(sent.body).value_or("")), (Offsets{1, 2, 3}));
  EXPECT_TRUE(service_->moduleQueues().at("Collector")->isEmpty());

  ASSERT_EQ(cachedFiles().size(), 1u);
  const auto saved = QVFileSystem::contentsAtPath(
      service_->cachedQueuesDirectory() + "/" + cachedFiles()[0], 1 << 20);
  ASSERT_TRUE(saved);
  EXPECT_EQ(offsetsIn(*saved), (Offsets{1, 2, 3}));
  core_->flushQueues();
  ASSERT_TRUE(waitFor([&] { return service_->completedFlushCycles() == 2; }));
  ASSERT_EQ(server_.requests().size(), 2u);
  EXPECT_EQ(test::gunzip(server_.request(1).body), saved) << "the same text, sent again";
  EXPECT_TRUE(cachedFiles().empty());
}

TEST_F(QVPipelineTest, AUrlEncodedModuleSendsOneGetPerMessage) {
  start(QVValue::object(), {{"URLEncoded", true}});
  postThroughCore(1, 3);
  core_->flushQueues();

  ASSERT_TRUE(waitFor([&] { return service_->completedFlushCycles() == 1; }));
  std::vector<std::string> queries;
  for (const auto& sent : server_.requests()) {
    EXPECT_EQ(sent.method, "GET");
    queries.push_back(sent.query());
  }
  EXPECT_EQ(queries, (std::vector<std::string>{"offset=1", "offset=2", "offset=3"}));
}

}  // namespace
}  // namespace qv
