// Posts to an https collection server: the server's certificate is verified,
// so a self-signed one fails the post and the queue waits on disk, until a
// session that trusts the certificate (QVCORE_CA_BUNDLE) carries it there.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <curl/curl.h>

#include <chrono>
#include <future>

#include "QVTlsTestServer.h"
#include "platform/http/QVCurlHttpSession.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::offsetsIn;

constexpr const char* kCaBundle = "QVCORE_CA_BUNDLE";

TEST(QVHttpsPostTest, ASelfSignedServerIsRefusedUntilItsCertificateIsTrusted) {
  ::unsetenv(kCaBundle);  // the first session trusts the system's bundle only
  test::QVTestHost host{"com.example.tls"};
  test::QVTlsTestServer server{host.folder().at("server.pem")};
  host.writeCoreConfig({{"PostMessageLevelWiFi", 3},
                        {"PostMessageTimeout", 10},
                        {"CompressPostMessage", true},
                        {"HasToPersistLocalCache", true}});
  host.defineModule("Collector", {{"PostMessageUrl", server.url("/collect")}});
  const auto core = QVCore::sharedInstance();
  const auto service = QVQueueService::sharedInstance();
  ASSERT_TRUE(core->enable() && core->enableModule("Collector"));
  const auto flushCycle = [&](uint64_t cycle) {
    core->flushQueues();
    return QVRunLoop::main().runUntil([&] { return service->completedFlushCycles() == cycle; },
                                      30s);
  };
  for (uint64_t offset = 1; offset <= 3; ++offset) {
    EXPECT_TRUE(core->postMessageForModuleName(test::messageWithOffset(offset), "Collector"));
  }
  ASSERT_TRUE(flushCycle(1));
  EXPECT_TRUE(server.posts().empty()) << "no request may cross an unverified connection";
  EXPECT_TRUE(service->moduleQueues().at("Collector")->isEmpty());
  ASSERT_EQ(test::namesIn(service->cachedQueuesDirectory()).size(), 1u)
      << "the failed post is cached";

  // The variable is read when a session is made, as by a host started with it.
  ::setenv(kCaBundle, server.certificatePath().c_str(), 1);
  QVHttpSession::setShared(std::make_shared<QVCurlHttpSession>());
  ASSERT_TRUE(flushCycle(2));
  const auto posts = server.posts();
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0].path + " " + posts[0].contentEncoding, "/collect gzip");
  EXPECT_EQ(offsetsIn(posts[0].body), (Offsets{1, 2, 3}));
  EXPECT_TRUE(test::namesIn(service->cachedQueuesDirectory()).empty());

  // Trusted or not, the certificate must name the host: it names 127.0.0.1,
  // not the same server reached as localhost.
  auto outcome = std::make_shared<std::promise<std::optional<QVHttpError>>>();
  QVHttpSession::shared()->dataTaskWithRequest(
      QVMutableURLRequest("https://localhost:" + std::to_string(server.port()) + "/"),
      [outcome](auto, auto error) { outcome->set_value(std::move(error)); });
  auto error = outcome->get_future();
  ASSERT_EQ(error.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(error.get().value_or(QVHttpError{}).code, CURLE_PEER_FAILED_VERIFICATION);
  core->disable();
  QVHttpSession::setShared(nullptr);
}

}  // namespace
}  // namespace qv
