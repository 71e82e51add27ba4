#include "platform/QVCurlHttpSession.h"

#include <curl/curl.h>
#include <stdlib.h>
#include <strings.h>

#include <array>
#include <cctype>
#include <climits>
#include <cmath>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

namespace qv {

namespace {

constexpr double kDefaultTimeoutSeconds = 60.0;
// Only a safety net: new work and curl's own timers wake the thread earlier.
constexpr int kIdlePollMilliseconds = 10000;
// A PEM file of certificates to trust instead of libcurl's default bundle.
constexpr const char* kCaBundleVariable = "QVCORE_CA_BUNDLE";

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool isToken(std::string_view name) {
  static constexpr std::string_view kPunctuation = "!#$%&'*+-.^_`|~";
  if (name.empty()) return false;
  for (char c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) &&
        kPunctuation.find(c) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

bool isSafeValue(std::string_view value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  const size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// One transfer from set-up to completion. The easy handle points into the
// header list, the body and the error buffer, so they live exactly as long.
struct Transfer {
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::shared_ptr<const std::string> body;
  QVHttpSession::CompletionHandler completion;
  QVHttpResponse response;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  CURLcode setupResult = CURLE_OK;

  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
  }
};

// Gathers the headers of the final response; an interim (1xx) status line
// starts the list again.
size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    transfer->response.headers.clear();
  } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
    transfer->response.headers.emplace_back(std::string(trimmed(line.substr(0, colon))),
                                            std::string(trimmed(line.substr(colon + 1))));
  }
  return size * count;
}

// Nothing in the core reads a response's body.
size_t onBody(char*, size_t size, size_t count, void*) { return size * count; }

bool appendHeader(Transfer& transfer, const std::string& line) {
  curl_slist* extended = curl_slist_append(transfer.headers, line.c_str());
  if (!extended) return false;
  transfer.headers = extended;
  return true;
}

class Setup {
 public:
  explicit Setup(Transfer& transfer) : transfer_(transfer) {}
  template <typename Value>
  void set(CURLoption option, Value value) {
    if (result_ == CURLE_OK) result_ = curl_easy_setopt(transfer_.easy, option, value);
  }
  void fail(CURLcode code) {
    if (result_ == CURLE_OK) result_ = code;
  }
  CURLcode result() const { return result_; }

 private:
  Transfer& transfer_;
  CURLcode result_ = CURLE_OK;
};

// The request's headers as listed, plus the blanks that keep libcurl from
// adding its own; the "Cookie" header goes to CURLOPT_COOKIE instead, so
// that it shares one line with the stored cookies.
void setHeaders(Setup& setup, Transfer& transfer, const QVMutableURLRequest& request,
                bool sendsBody) {
  bool hasAccept = false, hasExpect = false, hasContentType = false;
  for (const auto& [name, value] : request.allHTTPHeaderFields()) {
    if (!isToken(name) || !isSafeValue(value)) continue;
    if (sameName(name, "Cookie")) {
      setup.set(CURLOPT_COOKIE, value.c_str());
      continue;
    }
    hasAccept |= sameName(name, "Accept");
    hasExpect |= sameName(name, "Expect");
    hasContentType |= sameName(name, "Content-Type");
    // "Name;" is libcurl's way to send a header with an empty value.
    if (!appendHeader(transfer, value.empty() ? name + ";" : name + ": " + value)) {
      setup.fail(CURLE_OUT_OF_MEMORY);
    }
  }
  // "Name:" with nothing after it removes a header libcurl would add.
  if (!hasAccept && !appendHeader(transfer, "Accept:")) setup.fail(CURLE_OUT_OF_MEMORY);
  if (!hasExpect && !appendHeader(transfer, "Expect:")) setup.fail(CURLE_OUT_OF_MEMORY);
  if (sendsBody && !hasContentType && !appendHeader(transfer, "Content-Type:")) {
    setup.fail(CURLE_OUT_OF_MEMORY);
  }
  setup.set(CURLOPT_HTTPHEADER, transfer.headers);
}

void setMethodAndBody(Setup& setup, Transfer& transfer, const std::string& method, bool sendsBody) {
  if (method == "HEAD") {
    setup.set(CURLOPT_NOBODY, 1L);
  } else if (sendsBody) {
    // Sent from the caller's bytes, which the transfer keeps alive.
    const size_t size = transfer.body ? transfer.body->size() : 0;
    setup.set(CURLOPT_POST, 1L);
    setup.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
    setup.set(CURLOPT_POSTFIELDS, transfer.body ? transfer.body->data() : "");
    if (method != "POST") setup.set(CURLOPT_CUSTOMREQUEST, method.c_str());
  } else {
    setup.set(CURLOPT_HTTPGET, 1L);
    if (method != "GET") setup.set(CURLOPT_CUSTOMREQUEST, method.c_str());
  }
}

// A server is trusted only with a certificate that chains to a trusted one and
// names the URL's host; this is stated here rather than left to libcurl's
// defaults, so that no build or later option can turn it off unnoticed.
void setPeerVerification(Setup& setup, const std::string& caBundle) {
  setup.set(CURLOPT_SSL_VERIFYPEER, 1L);
  setup.set(CURLOPT_SSL_VERIFYHOST, 2L);
  if (!caBundle.empty()) setup.set(CURLOPT_CAINFO, caBundle.c_str());
}

std::unique_ptr<Transfer> makeTransfer(const QVMutableURLRequest& request,
                                       std::shared_ptr<const std::string> body, bool sendsBody,
                                       QVHttpSession::CompletionHandler completion, CURLSH* share,
                                       const std::string& caBundle) {
  auto transfer = std::make_unique<Transfer>();
  transfer->completion = std::move(completion);
  transfer->body = std::move(body);
  transfer->easy = curl_easy_init();
  if (!transfer->easy) {
    transfer->setupResult = CURLE_FAILED_INIT;
    return transfer;
  }
  const std::string method = request.HTTPMethod().empty() ? "GET" : request.HTTPMethod();
  Setup setup(*transfer);
  setup.set(CURLOPT_URL, request.URL().c_str());
  setup.set(CURLOPT_PROTOCOLS_STR, "http,https");
  setup.set(CURLOPT_NOSIGNAL, 1L);
  setup.set(CURLOPT_FOLLOWLOCATION, 0L);
  setPeerVerification(setup, caBundle);
  setup.set(CURLOPT_TIMEOUT_MS, QVCurlHttpSession::timeoutMilliseconds(request.timeoutInterval()));
  setup.set(CURLOPT_ERRORBUFFER, transfer->errorBuffer);
  setup.set(CURLOPT_HEADERFUNCTION, &onHeader);
  setup.set(CURLOPT_HEADERDATA, transfer.get());
  setup.set(CURLOPT_WRITEFUNCTION, &onBody);
  if (request.HTTPShouldHandleCookies() && share) {
    setup.set(CURLOPT_SHARE, share);
    setup.set(CURLOPT_COOKIEFILE, "");  // the cookie engine, in memory only
  }
  setHeaders(setup, *transfer, request, sendsBody);
  setMethodAndBody(setup, *transfer, method, sendsBody);
  transfer->setupResult = setup.result();
  return transfer;
}

std::string errorMessage(const Transfer& transfer, CURLcode code) {
  if (transfer.errorBuffer[0]) return transfer.errorBuffer;
  return curl_easy_strerror(code);
}

void callCompletion(const QVHttpSession::CompletionHandler& completion,
                    std::optional<QVHttpResponse> response, std::optional<QVHttpError> error) {
  if (!completion) return;
  try {
    completion(std::move(response), std::move(error));
  } catch (const std::exception&) {
    // The thread serves every other transfer; one completion cannot end it.
  }
}

std::string caBundleFromEnvironment() {
  const char* path = ::getenv(kCaBundleVariable);
  return path ? path : "";
}

void initialiseCurl() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

// The state the callback thread works on. The thread holds it too, so it
// outlives a session destroyed from inside a completion.
class QVCurlHttpSession::Engine {
 public:
  Engine();
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  CURLSH* share() const { return share_; }
  const std::string& caBundle() const { return caBundle_; }
  void submit(std::unique_ptr<Transfer> transfer);
  void stop();
  void run();

 private:
  static void lockShare(CURL*, curl_lock_data data, curl_lock_access, void* user);
  static void unlockShare(CURL*, curl_lock_data data, void* user);

  bool takeNewTransfers();
  void start(std::unique_ptr<Transfer> transfer);
  void finishDoneTransfers();
  void finish(std::unique_ptr<Transfer> transfer, CURLcode result);
  void cancelAll();

  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks_;
  // Read once, so the trusted certificates do not change under a session.
  const std::string caBundle_ = caBundleFromEnvironment();

  std::mutex mutex_;  // guards incoming_ and stopping_
  std::vector<std::unique_ptr<Transfer>> incoming_;
  bool stopping_ = false;

  // Only the callback thread touches these.
  std::map<CURL*, std::unique_ptr<Transfer>> running_;
};

QVCurlHttpSession::Engine::Engine() {
  initialiseCurl();
  multi_ = curl_multi_init();
  share_ = curl_share_init();
  if (share_) {
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &Engine::lockShare);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &Engine::unlockShare);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  }
}

QVCurlHttpSession::Engine::~Engine() {
  // Every easy handle is gone by now (run() cancels what is left).
  if (multi_) curl_multi_cleanup(multi_);
  if (share_) curl_share_cleanup(share_);
}

void QVCurlHttpSession::Engine::lockShare(CURL*, curl_lock_data data, curl_lock_access,
                                          void* user) {
  static_cast<Engine*>(user)->shareLocks_.at(data).lock();
}

void QVCurlHttpSession::Engine::unlockShare(CURL*, curl_lock_data data, void* user) {
  static_cast<Engine*>(user)->shareLocks_.at(data).unlock();
}

void QVCurlHttpSession::Engine::submit(std::unique_ptr<Transfer> transfer) {
  {
    std::lock_guard lock(mutex_);
    if (!stopping_ && multi_) {
      incoming_.push_back(std::move(transfer));
      curl_multi_wakeup(multi_);
      return;
    }
  }
  callCompletion(transfer->completion, std::nullopt,
                 QVHttpError{QVHttpError::kCancelled, "the HTTP session is gone"});
}

void QVCurlHttpSession::Engine::stop() {
  std::lock_guard lock(mutex_);
  stopping_ = true;
  if (multi_) curl_multi_wakeup(multi_);
}

void QVCurlHttpSession::Engine::run() {
  if (!multi_) return;
  while (takeNewTransfers()) {
    int active = 0;
    curl_multi_perform(multi_, &active);
    finishDoneTransfers();
    curl_multi_poll(multi_, nullptr, 0, kIdlePollMilliseconds, nullptr);
  }
  cancelAll();
}

bool QVCurlHttpSession::Engine::takeNewTransfers() {
  std::vector<std::unique_ptr<Transfer>> added;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    added.swap(incoming_);
  }
  for (auto& transfer : added) start(std::move(transfer));
  return true;
}

void QVCurlHttpSession::Engine::start(std::unique_ptr<Transfer> transfer) {
  if (transfer->setupResult != CURLE_OK) {
    const CURLcode result = transfer->setupResult;
    finish(std::move(transfer), result);
    return;
  }
  const CURLMcode added = curl_multi_add_handle(multi_, transfer->easy);
  if (added != CURLM_OK) {
    finish(std::move(transfer), CURLE_FAILED_INIT);
    return;
  }
  CURL* easy = transfer->easy;
  running_.emplace(easy, std::move(transfer));
}

void QVCurlHttpSession::Engine::finishDoneTransfers() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    // The message dies with the handle's removal: read it first.
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;
    auto it = running_.find(easy);
    if (it == running_.end()) continue;
    std::unique_ptr<Transfer> transfer = std::move(it->second);
    running_.erase(it);
    curl_multi_remove_handle(multi_, easy);
    finish(std::move(transfer), result);
  }
}

void QVCurlHttpSession::Engine::finish(std::unique_ptr<Transfer> transfer, CURLcode result) {
  std::optional<QVHttpResponse> response;
  long status = 0;
  if (transfer->easy &&
      curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK &&
      status > 0) {
    response = std::move(transfer->response);
    response->statusCode = status;
  }
  std::optional<QVHttpError> error;
  if (result != CURLE_OK) error = QVHttpError{result, errorMessage(*transfer, result)};
  // The body is released before the completion runs, which may start the
  // next transfer with a body of its own.
  QVHttpSession::CompletionHandler completion = std::move(transfer->completion);
  transfer.reset();
  callCompletion(completion, std::move(response), std::move(error));
}

void QVCurlHttpSession::Engine::cancelAll() {
  std::vector<std::unique_ptr<Transfer>> cancelled;
  for (auto& [easy, transfer] : running_) {
    curl_multi_remove_handle(multi_, easy);
    cancelled.push_back(std::move(transfer));
  }
  running_.clear();
  {
    std::lock_guard lock(mutex_);
    for (auto& transfer : incoming_) cancelled.push_back(std::move(transfer));
    incoming_.clear();
  }
  for (auto& transfer : cancelled) {
    QVHttpSession::CompletionHandler completion = std::move(transfer->completion);
    transfer.reset();
    callCompletion(completion, std::nullopt,
                   QVHttpError{QVHttpError::kCancelled, "the HTTP session is gone"});
  }
}

QVCurlHttpSession::QVCurlHttpSession() : engine_(std::make_shared<Engine>()) {
  thread_ = std::thread([engine = engine_] { engine->run(); });
}

QVCurlHttpSession::~QVCurlHttpSession() {
  engine_->stop();
  // A completion may drop the last reference to its own session.
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void QVCurlHttpSession::uploadTaskWithRequest(const QVMutableURLRequest& request,
                                              std::shared_ptr<const std::string> body,
                                              CompletionHandler completion) {
  engine_->submit(makeTransfer(request, std::move(body), true, std::move(completion),
                               engine_->share(), engine_->caBundle()));
}

void QVCurlHttpSession::dataTaskWithRequest(const QVMutableURLRequest& request,
                                            CompletionHandler completion) {
  const std::string& method = request.HTTPMethod();
  const bool sendsBody = method != "GET" && method != "HEAD" && !method.empty();
  engine_->submit(makeTransfer(request, sendsBody ? request.HTTPBody() : nullptr, sendsBody,
                               std::move(completion), engine_->share(), engine_->caBundle()));
}

long QVCurlHttpSession::timeoutMilliseconds(double seconds) {
  if (!(seconds > 0)) seconds = kDefaultTimeoutSeconds;  // NaN included
  const double milliseconds = std::ceil(seconds * 1000.0);
  if (!(milliseconds < static_cast<double>(INT_MAX))) return INT_MAX;
  return static_cast<long>(milliseconds);
}

}  // namespace qv
