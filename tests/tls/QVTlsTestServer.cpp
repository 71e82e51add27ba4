#include "QVTlsTestServer.h"

#ifndef CPPHTTPLIB_OPENSSL_SUPPORT
#define CPPHTTPLIB_OPENSSL_SUPPORT
#endif
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <chrono>
#include <memory>
#include <stdexcept>

namespace qv::test {

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("TLS test server: ") + what);
}

// Valid from an hour ago for a day, so clock skew does not matter.
Certificate selfSigned(EVP_PKEY* key) {
  Certificate certificate(X509_new(), &X509_free);
  X509* c = certificate.get();
  check(c && X509_set_version(c, X509_VERSION_3) == 1, "version");
  ASN1_INTEGER_set(X509_get_serialNumber(c), 1);
  X509_gmtime_adj(X509_getm_notBefore(c), -3600);
  X509_gmtime_adj(X509_getm_notAfter(c), 24 * 3600);
  X509_NAME* name = X509_get_subject_name(c);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  check(X509_set_issuer_name(c, name) == 1 && X509_set_pubkey(c, key) == 1, "names");
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, c, c, nullptr, nullptr, 0);
  X509_EXTENSION* extension =
      X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "IP:127.0.0.1");
  check(extension && X509_add_ext(c, extension, -1) == 1, "extension");
  X509_EXTENSION_free(extension);
  check(X509_sign(c, key, EVP_sha256()) > 0, "signature");
  return certificate;
}

void writePem(X509* certificate, const std::string& path) {
  std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "w"), &BIO_free);
  check(file && PEM_write_bio_X509(file.get(), certificate) == 1, "writing the certificate");
}

}  // namespace

QVTlsTestServer::QVTlsTestServer(std::string certificatePath)
    : certificatePath_(std::move(certificatePath)) {
  for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    ::unsetenv(name);
  }
  Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  check(key != nullptr, "key");
  Certificate certificate = selfSigned(key.get());
  writePem(certificate.get(), certificatePath_);
  // The server's context holds references of its own to both.
  server_ = std::make_unique<httplib::SSLServer>(certificate.get(), key.get());
  check(server_->is_valid(), "context");
  server_->Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard lock(mutex_);
    posts_.push_back({request.path, request.get_header_value("Content-Encoding"), request.body});
    response.status = 200;
  });
  port_ = server_->bind_to_any_port("127.0.0.1");
  check(port_ > 0, "bind");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() only reaches a server that runs; this wait is short and bounded.
  for (int i = 0; i < 10000 && !server_->is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

QVTlsTestServer::~QVTlsTestServer() {
  server_->stop();
  thread_.join();
}

std::string QVTlsTestServer::url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<QVTlsTestServer::Post> QVTlsTestServer::posts() const {
  std::lock_guard lock(mutex_);
  return posts_;
}

}  // namespace qv::test
