#include "platform/http/QVCurlHttpSession.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <ctime>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/host/QVSwallowed.h"
#include "platform/value/QVText.h"
#include "qvcore/platform/QVFileSystem.h"

namespace qv {

namespace {

constexpr double kDefaultTimeoutSeconds = 60.0;
// Only a safety net: new work and curl's own timers wake the thread earlier.
constexpr int kIdlePollMilliseconds = 10000;
// A PEM file of certificates to trust instead of libcurl's default bundle.
constexpr const char* kCaBundleVariable = "QVCORE_CA_BUNDLE";
// The persistent cookies, in the application's data folder.
constexpr const char* kCookieFileName = "QVCoreCookies.txt";
constexpr size_t kMaxCookieFileBytes = 1 << 20;
constexpr mode_t kCookieFileMode = 0600;
constexpr mode_t kCookieFolderMode = 0700;

using Clock = std::chrono::steady_clock;

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
  // The transfer fails once no byte has moved either way for idleLimit.
  std::chrono::milliseconds idleLimit{0};
  Clock::time_point lastMoved;
  curl_off_t sent = 0;
  curl_off_t received = 0;
  int queued = 0;  // bytes in the socket's send queue at the last look
  bool usesCookies = false;
  bool sawSetCookie = false;

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
  transfer->lastMoved = Clock::now();
  if (QVText::equalsIgnoringCase(line.substr(0, 11), "Set-Cookie:")) {
    transfer->sawSetCookie = true;
  }
  if (line.starts_with("HTTP/")) {
    transfer->response.headers.clear();
  } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
    transfer->response.headers.emplace_back(std::string(QVText::trimmed(line.substr(0, colon))),
                                            std::string(QVText::trimmed(line.substr(colon + 1))));
  }
  return size * count;
}

// Nothing in the core reads a response's body.
size_t onBody(char*, size_t size, size_t count, void*) { return size * count; }

// Notes when bytes last moved; the callback thread ends a transfer that has
// been still for too long (a slow link that keeps moving is never cut).
// libcurl counts the bytes it hands to the socket, so this sees a body move
// up only until the kernel's send queue has taken the rest of it.
int onProgress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
  auto* transfer = static_cast<Transfer*>(user);
  if (received != transfer->received || sent != transfer->sent) {
    transfer->received = received;
    transfer->sent = sent;
    transfer->lastMoved = Clock::now();
  }
  return 0;
}

// The sockets libcurl holds open for a session's connections, which outlive
// single transfers (connections are kept for reuse). Only libcurl's calls on
// the callback thread, and the multi handle's cleanup, change the list.
using SocketList = std::vector<curl_socket_t>;

int onSocketOpened(void* user, curl_socket_t socket, curlsocktype purpose) {
  try {
    if (purpose == CURLSOCKTYPE_IPCXN) static_cast<SocketList*>(user)->push_back(socket);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Out of memory: only the queue's drain goes unseen on this socket.
  }
  return CURL_SOCKOPT_OK;
}

int onSocketClose(void* user, curl_socket_t socket) {
  std::erase(*static_cast<SocketList*>(user), socket);
  return ::close(socket);
}

long portOf(curl_socket_t socket, bool peer) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if ((peer ? ::getpeername(socket, raw, &length) : ::getsockname(socket, raw, &length)) != 0) {
    return -1;
  }
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(raw)->sin_port);
  if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(raw)->sin6_port);
  return -1;
}

// The open socket whose two ports are those of the transfer's connection.
curl_socket_t socketOf(const Transfer& transfer, const SocketList& sockets) {
  long local = 0, remote = 0;
  if (curl_easy_getinfo(transfer.easy, CURLINFO_LOCAL_PORT, &local) != CURLE_OK ||
      curl_easy_getinfo(transfer.easy, CURLINFO_PRIMARY_PORT, &remote) != CURLE_OK || local <= 0) {
    return CURL_SOCKET_BAD;
  }
  for (const curl_socket_t socket : sockets) {
    if (portOf(socket, false) == local && portOf(socket, true) == remote) return socket;
  }
  return CURL_SOCKET_BAD;
}

// The rest of an upload leaves from the kernel's send queue, which may hold
// megabytes: a queue that shrinks is a link that moves. Looked at only when
// libcurl has seen nothing move for a while.
void noteQueueDrain(Transfer& transfer, const SocketList& sockets, Clock::time_point now) {
  if (now - transfer.lastMoved < transfer.idleLimit / 10) return;
  const curl_socket_t socket = socketOf(transfer, sockets);
  int queued = 0;
  if (socket == CURL_SOCKET_BAD || ::ioctl(socket, SIOCOUTQ, &queued) != 0 ||
      queued == transfer.queued) {
    return;
  }
  transfer.queued = queued;
  transfer.lastMoved = now;
}

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
    if (QVText::equalsIgnoringCase(name, "Cookie")) {
      setup.set(CURLOPT_COOKIE, value.c_str());
      continue;
    }
    hasAccept |= QVText::equalsIgnoringCase(name, "Accept");
    hasExpect |= QVText::equalsIgnoringCase(name, "Expect");
    hasContentType |= QVText::equalsIgnoringCase(name, "Content-Type");
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

// What every transfer of one session shares.
struct SessionParts {
  CURLSH* share;
  const std::string& caBundle;
  SocketList* sockets;
};

void setSocketWatch(Setup& setup, SocketList* sockets) {
  setup.set(CURLOPT_SOCKOPTFUNCTION, &onSocketOpened);
  setup.set(CURLOPT_SOCKOPTDATA, sockets);
  setup.set(CURLOPT_CLOSESOCKETFUNCTION, &onSocketClose);
  setup.set(CURLOPT_CLOSESOCKETDATA, sockets);
}

std::unique_ptr<Transfer> makeTransfer(const QVMutableURLRequest& request,
                                       std::shared_ptr<const std::string> body, bool sendsBody,
                                       QVHttpSession::CompletionHandler completion,
                                       const SessionParts& session) {
  CURLSH* share = session.share;
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
  setPeerVerification(setup, session.caBundle);
  setSocketWatch(setup, session.sockets);
  transfer->idleLimit =
      std::chrono::milliseconds(QVCurlHttpSession::timeoutMilliseconds(request.timeoutInterval()));
  setup.set(CURLOPT_NOPROGRESS, 0L);
  setup.set(CURLOPT_XFERINFOFUNCTION, &onProgress);
  setup.set(CURLOPT_XFERINFODATA, transfer.get());
  setup.set(CURLOPT_ERRORBUFFER, transfer->errorBuffer);
  setup.set(CURLOPT_HEADERFUNCTION, &onHeader);
  setup.set(CURLOPT_HEADERDATA, transfer.get());
  setup.set(CURLOPT_WRITEFUNCTION, &onBody);
  if (request.HTTPShouldHandleCookies() && share) {
    setup.set(CURLOPT_SHARE, share);
    setup.set(CURLOPT_COOKIEFILE, "");  // the cookie engine, with no file of its own
    transfer->usesCookies = true;
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
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // The thread serves every other transfer; one completion cannot end it.
  }
}

std::string caBundleFromEnvironment() {
  const char* path = ::getenv(kCaBundleVariable);
  return path ? path : "";
}

std::string cookieFileInHome() {
  const std::string home = QVFileSystem::homeDirectory();
  return home.empty() ? "" : QVFileSystem::stringByAppendingPathComponent(home, kCookieFileName);
}

// A line of libcurl's cookie list (Netscape format: domain, subdomains, path,
// secure, expiry, name, value, tab-separated) for a cookie that outlives the
// process: one whose expiry is still ahead. Expiry 0 marks a session cookie,
// which stays in memory only. Anything else (a comment, one of libcurl's
// list commands) is not a cookie to keep.
bool isPersistentCookie(std::string_view line, int64_t now) {
  size_t start = 0;
  for (int field = 0; field < 4; ++field) {
    start = line.find('\t', start);
    if (start == std::string_view::npos) return false;
    ++start;
  }
  const size_t end = line.find('\t', start);
  if (end == std::string_view::npos || line.find('\t', end + 1) == std::string_view::npos) {
    return false;
  }
  int64_t expiry = 0;
  const auto [stop, error] = std::from_chars(line.data() + start, line.data() + end, expiry);
  return error == std::errc() && stop == line.data() + end && expiry > now;
}

// The persistent cookies of the store the transfer used, sorted so that two
// lists compare equal whatever order libcurl keeps them in.
std::optional<std::vector<std::string>> persistentCookies(CURL* easy) {
  curl_slist* list = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_COOKIELIST, &list) != CURLE_OK) return std::nullopt;
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> owned(list,
                                                                          &curl_slist_free_all);
  std::vector<std::string> lines;
  const int64_t now = std::time(nullptr);
  for (const curl_slist* item = list; item; item = item->next) {
    if (isPersistentCookie(item->data, now)) lines.emplace_back(item->data);
  }
  std::sort(lines.begin(), lines.end());
  return lines;
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

  SessionParts parts() { return SessionParts{share_, caBundle_, &sockets_}; }
  void submit(std::unique_ptr<Transfer> transfer);
  void stop();
  void run();

 private:
  static void lockShare(CURL*, curl_lock_data data, curl_lock_access, void* user);
  static void unlockShare(CURL*, curl_lock_data data, void* user);

  bool takeNewTransfers();
  void start(std::unique_ptr<Transfer> transfer);
  void finishDoneTransfers();
  void finishIdleTransfers();
  int pollMilliseconds() const;
  void loadCookies();
  void saveCookies(const Transfer& transfer);
  void finish(std::unique_ptr<Transfer> transfer, CURLcode result);
  void cancelAll();

  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks_;
  // Read once, so the trusted certificates do not change under a session.
  const std::string caBundle_ = caBundleFromEnvironment();
  // Where the persistent cookies are kept; none without a data folder.
  const std::string cookieFile_ = cookieFileInHome();

  std::mutex mutex_;  // guards incoming_ and stopping_
  std::vector<std::unique_ptr<Transfer>> incoming_;
  bool stopping_ = false;

  // Only the callback thread touches these.
  std::map<CURL*, std::unique_ptr<Transfer>> running_;
  // The persistent cookies as the file holds them, sorted.
  std::vector<std::string> savedCookies_;
  // Until the multi handle's cleanup, which closes the kept connections.
  SocketList sockets_;
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
  loadCookies();
  while (takeNewTransfers()) {
    int active = 0;
    curl_multi_perform(multi_, &active);
    finishDoneTransfers();
    finishIdleTransfers();
    curl_multi_poll(multi_, nullptr, 0, pollMilliseconds(), nullptr);
  }
  cancelAll();
}

// Transfers that moved no byte for their whole idle limit fail as timed
// out, whatever phase they are in (connecting included).
void QVCurlHttpSession::Engine::finishIdleTransfers() {
  const Clock::time_point now = Clock::now();
  std::vector<std::unique_ptr<Transfer>> idle;
  for (auto it = running_.begin(); it != running_.end();) {
    noteQueueDrain(*it->second, sockets_, now);
    if (now - it->second->lastMoved < it->second->idleLimit) {
      ++it;
      continue;
    }
    curl_multi_remove_handle(multi_, it->first);
    idle.push_back(std::move(it->second));
    it = running_.erase(it);
  }
  for (auto& transfer : idle) finish(std::move(transfer), CURLE_OPERATION_TIMEDOUT);
}

// Wakes the thread when the first idle limit may run out, and ten times a
// limit, since nothing else tells when a send queue drains: a stall is then
// seen within a tenth of the limit.
int QVCurlHttpSession::Engine::pollMilliseconds() const {
  auto wait = std::chrono::milliseconds(kIdlePollMilliseconds);
  const Clock::time_point now = Clock::now();
  for (const auto& [easy, transfer] : running_) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(transfer->lastMoved +
                                                             transfer->idleLimit - now);
    left = std::min(left, std::max(transfer->idleLimit / 10, std::chrono::milliseconds(1)));
    wait = std::min(wait, std::max(left, std::chrono::milliseconds(1)));
  }
  return static_cast<int>(wait.count());
}

// On the callback thread before any transfer starts, so that the first
// request after a restart already carries the kept cookies.
void QVCurlHttpSession::Engine::loadCookies() {
  if (cookieFile_.empty() || !share_) return;
  const auto text = QVFileSystem::contentsAtPath(cookieFile_, kMaxCookieFileBytes);
  if (!text) return;
  CURL* easy = curl_easy_init();
  if (!easy) return;
  curl_easy_setopt(easy, CURLOPT_SHARE, share_);
  const int64_t now = std::time(nullptr);
  std::string_view rest = *text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    const std::string line(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (!isPersistentCookie(line, now)) continue;
    if (curl_easy_setopt(easy, CURLOPT_COOKIELIST, line.c_str()) == CURLE_OK) {
      savedCookies_.push_back(line);
    }
  }
  curl_easy_cleanup(easy);
  std::sort(savedCookies_.begin(), savedCookies_.end());
}

// Only a response that set cookies can have changed the persistent ones,
// and the file is written only when they did change.
void QVCurlHttpSession::Engine::saveCookies(const Transfer& transfer) {
  if (cookieFile_.empty() || !transfer.usesCookies || !transfer.sawSetCookie || !transfer.easy) {
    return;
  }
  auto lines = persistentCookies(transfer.easy);
  if (!lines || *lines == savedCookies_) return;
  std::string text;
  for (const std::string& line : *lines) text += line + "\n";
  const std::string folder = QVFileSystem::stringByDeletingLastPathComponent(cookieFile_);
  if (!QVFileSystem::createDirectoryAtPath(folder, kCookieFolderMode)) return;
  if (QVFileSystem::writeAtomically(cookieFile_, text, kCookieFileMode)) {
    savedCookies_ = std::move(*lines);
  }
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
  transfer->lastMoved = Clock::now();
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
  try {
    saveCookies(*transfer);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Out of memory: the cookies stay in memory, the outcome still goes.
  }
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
  engine_->submit(
      makeTransfer(request, std::move(body), true, std::move(completion), engine_->parts()));
}

void QVCurlHttpSession::dataTaskWithRequest(const QVMutableURLRequest& request,
                                            CompletionHandler completion) {
  const std::string& method = request.HTTPMethod();
  const bool sendsBody = method != "GET" && method != "HEAD" && !method.empty();
  engine_->submit(makeTransfer(request, sendsBody ? request.HTTPBody() : nullptr, sendsBody,
                               std::move(completion), engine_->parts()));
}

long QVCurlHttpSession::timeoutMilliseconds(double seconds) {
  if (!(seconds > 0)) seconds = kDefaultTimeoutSeconds;  // NaN included
  const double milliseconds = std::ceil(seconds * 1000.0);
  if (!(milliseconds < static_cast<double>(INT_MAX))) return INT_MAX;
  return static_cast<long>(milliseconds);
}

}  // namespace qv
