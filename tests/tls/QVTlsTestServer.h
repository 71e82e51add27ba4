#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class SSLServer;
}  // namespace httplib

namespace qv::test {

// An HTTPS server on 127.0.0.1 at an ephemeral port, with a self-signed
// certificate made for it at construction (subjectAltName IP:127.0.0.1 only)
// and written as PEM to certificatePath; the key stays in memory. It answers
// 200 to every POST it reads in full and records it, the body as cpp-httplib
// hands it over (inflated when it came gzipped).
// Constructing one unsets the https proxy variables.
class QVTlsTestServer {
 public:
  struct Post {
    std::string path;
    std::string contentEncoding;
    std::string body;
  };

  explicit QVTlsTestServer(std::string certificatePath);
  ~QVTlsTestServer();
  QVTlsTestServer(const QVTlsTestServer&) = delete;
  QVTlsTestServer& operator=(const QVTlsTestServer&) = delete;

  const std::string& certificatePath() const { return certificatePath_; }
  int port() const { return port_; }
  std::string url(const std::string& path) const;
  std::vector<Post> posts() const;

 private:
  std::string certificatePath_;
  std::unique_ptr<httplib::SSLServer> server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<Post> posts_;
};

}  // namespace qv::test
