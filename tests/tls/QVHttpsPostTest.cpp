// Posts to an https collection server: the server's certificate is verified,
// so a self-signed one fails the post and the queue waits on disk, until a
// session that trusts the certificate (QVCORE_CA_BUNDLE) carries it there.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <future>

#include "platform/http/QVCurlHttpSession.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVCapability.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::offsetsIn;

constexpr const char* kCaBundle = "QVCORE_CA_BUNDLE";

// An HTTPS server on 127.0.0.1 with a self-signed certificate that names
// 127.0.0.1 (as its one subjectAltName), written as PEM to certificatePath.
// It answers 200 to every POST and records it as ("path encoding", body).
class TlsServer {
 public:
  explicit TlsServer(const std::string& certificatePath) {
    const std::string key = certificatePath + ".key";
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 "
        "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
        key + " -out " + certificatePath + " 2>/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    server_ = std::make_unique<httplib::SSLServer>(certificatePath.c_str(), key.c_str());
    server_->Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard lock(mutex_);
      posts_.emplace_back(request.path + " " + request.get_header_value("Content-Encoding"),
                          request.body);
      response.status = 200;
    });
    port_ = server_->bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() only reaches a server that runs.
    for (int i = 0; i < 10000 && !server_->is_running(); ++i) std::this_thread::sleep_for(1ms);
  }
  ~TlsServer() {
    server_->stop();
    thread_.join();
  }
  std::string url(const std::string& host, const std::string& path) const {
    return "https://" + host + ":" + std::to_string(port_) + path;
  }
  std::vector<std::pair<std::string, std::string>> posts() const {
    std::lock_guard lock(mutex_);
    return posts_;
  }

 private:
  std::unique_ptr<httplib::SSLServer> server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> posts_;
};

TEST(QVHttpsPostTest, ASelfSignedServerIsRefusedUntilItsCertificateIsTrusted) {
  QV_REQUIRE_CAPABILITY(std::system("command -v openssl >/dev/null") == 0, "the openssl command");
  ::unsetenv(kCaBundle);  // the first session trusts the system's bundle only
  test::QVTestHost host{"com.example.tls"};
  const std::string certificate = host.folder().at("server.pem");
  TlsServer server(certificate);
  host.writeCoreConfig({{"PostMessageLevelWiFi", 3},
                        {"PostMessageTimeout", 10},
                        {"CompressPostMessage", true},
                        {"HasToPersistLocalCache", true}});
  host.defineModule("Collector", {{"PostMessageUrl", server.url("127.0.0.1", "/collect")}});
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
  ::setenv(kCaBundle, certificate.c_str(), 1);
  QVHttpSession::setShared(std::make_shared<QVCurlHttpSession>());
  ASSERT_TRUE(flushCycle(2));
  const auto posts = server.posts();
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0].first, "/collect gzip");
  EXPECT_EQ(offsetsIn(posts[0].second), (Offsets{1, 2, 3}));
  EXPECT_TRUE(test::namesIn(service->cachedQueuesDirectory()).empty());

  // Trusted or not, the certificate must name the host: it names 127.0.0.1,
  // not the same server reached as localhost.
  auto outcome = std::make_shared<std::promise<std::optional<QVHttpError>>>();
  QVHttpSession::shared()->dataTaskWithRequest(
      QVMutableURLRequest(server.url("localhost", "/")),
      [outcome](auto, auto error) { outcome->set_value(std::move(error)); });
  auto error = outcome->get_future();
  ASSERT_EQ(error.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(error.get().value_or(QVHttpError{}).code, CURLE_PEER_FAILED_VERIFICATION);
  core->disable();
  QVHttpSession::setShared(nullptr);
}

}  // namespace
}  // namespace qv
