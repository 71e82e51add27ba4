// Posts to an https collection server: the server's certificate is verified,
// so a self-signed one fails the post and the queue waits on disk, until a
// session that trusts the certificate (QVCORE_CA_BUNDLE) carries it there.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <future>

#ifndef CPPHTTPLIB_OPENSSL_SUPPORT
#define CPPHTTPLIB_OPENSSL_SUPPORT
#endif
#include <httplib.h>

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

// Names 127.0.0.1 (as its one subjectAltName); valid from an hour ago for a
// day, so clock skew does not matter.
X509* selfSigned(EVP_PKEY* key) {
  X509* certificate = X509_new();
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_set_pubkey(certificate, key);
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* altName =
      X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "IP:127.0.0.1");
  X509_add_ext(certificate, altName, -1);
  X509_EXTENSION_free(altName);
  X509_sign(certificate, key, EVP_sha256());
  return certificate;
}

// An HTTPS server on 127.0.0.1 with a certificate of its own, written as
// PEM to certificatePath. It answers 200 to every POST and records it, the
// body as cpp-httplib hands it over (inflated when it came gzipped).
class TlsServer {
 public:
  explicit TlsServer(const std::string& certificatePath) {
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
      ::unsetenv(name);
    }
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = selfSigned(key);
    FILE* file = std::fopen(certificatePath.c_str(), "w");
    PEM_write_X509(file, certificate);
    std::fclose(file);
    server_ = std::make_unique<httplib::SSLServer>(certificate, key);  // holds references
    X509_free(certificate);
    EVP_PKEY_free(key);
    server_->Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard lock(mutex_);
      const std::string encoding = request.get_header_value("Content-Encoding");
      posts_.emplace_back(request.path + " " + encoding, request.body);
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
  // ("path encoding", body) of each.
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
