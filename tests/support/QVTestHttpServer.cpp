#include "support/QVTestHttpServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "platform/value/QVText.h"
#include "support/QVLoopback.h"

namespace qv::test {

namespace {

constexpr auto kIoBound = std::chrono::seconds(30);
constexpr size_t kMaxHeaderBytes = 64 * 1024;

// Request line and header lines of a head that ends in an empty line.
QVRecordedRequest parseHead(const std::string& head) {
  QVRecordedRequest request;
  std::istringstream lines(head);
  std::string line;
  std::getline(lines, line);
  std::istringstream(line) >> request.method >> request.target >> request.version;
  while (std::getline(lines, line) && line != "\r") {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    request.headers.emplace_back(line.substr(0, colon),
                                 QVText::trimmed(std::string_view(line).substr(colon + 1)));
  }
  return request;
}

// The close that follows sends a reset instead of an orderly end of stream.
void resetOnClose(int fd) {
  const linger abort{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

void answer(int fd, const QVTestReply& reply) {
  std::string response = "HTTP/1.1 " + std::to_string(reply.status) + " Test\r\n";
  for (const auto& [name, value] : reply.headers) response += name + ": " + value + "\r\n";
  response += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
  response += "Connection: close\r\n\r\n" + reply.body;
  sendAll(fd, response);
}

}  // namespace

std::string QVRecordedRequest::query() const {
  const size_t mark = target.find('?');
  return mark == std::string::npos ? "" : target.substr(mark + 1);
}

std::optional<std::string> QVRecordedRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (QVText::equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

size_t QVRecordedRequest::headerCount(const std::string& name) const {
  return std::count_if(headers.begin(), headers.end(),
                       [&](auto& h) { return QVText::equalsIgnoringCase(h.first, name); });
}

QVTestHttpServer::QVTestHttpServer(int receiveBufferBytes, bool listening) {
  // Clients in this process (and its children) reach it directly.
  for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) ::unsetenv(name);
  listenFd_ = bindLoopback(port_, false, receiveBufferBytes);
  if (::pipe2(stopPipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  if (listening) listen();
}

void QVTestHttpServer::listen() {
  if (::listen(listenFd_, 16) != 0) throw std::runtime_error("listen");
  thread_ = std::thread([this] { serve(); });
}

QVTestHttpServer::~QVTestHttpServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  (void)!::write(stopPipe_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  ::close(listenFd_);
  ::close(stopPipe_[0]);
  ::close(stopPipe_[1]);
}

std::string QVTestHttpServer::url(const std::string& target) const {
  return "http://127.0.0.1:" + std::to_string(port_) + target;
}

void QVTestHttpServer::addReply(QVTestReply reply) {
  std::lock_guard lock(mutex_);
  replies_.push_back(std::move(reply));
}

void QVTestHttpServer::release() {
  {
    std::lock_guard lock(mutex_);
    released_ = true;
  }
  changed_.notify_all();
}

std::vector<QVRecordedRequest> QVTestHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

QVRecordedRequest QVTestHttpServer::request(size_t index) const {
  std::lock_guard lock(mutex_);
  if (index < requests_.size()) return requests_[index];
  ADD_FAILURE() << "no request " << index << " among " << requests_.size();
  return {};
}

bool QVTestHttpServer::waitForRequests(size_t count, std::chrono::seconds bound) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, bound, [&] { return requests_.size() >= count; });
}

void QVTestHttpServer::serve() {
  for (;;) {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) continue;
    if (fds[1].revents) return;
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    handle(fd);
    ::close(fd);
  }
}

void QVTestHttpServer::handle(int fd) {
  using Kind = QVTestReply::Kind;
  QVRecordedRequest request;
  if (!readHead(fd, request)) return;
  const QVTestReply reply = nextReply();
  if (reply.kind == Kind::kResetWhileReading) return resetOnClose(fd);
  if (!readBody(fd, request, reply.kind == Kind::kTrickle)) return;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
  }
  changed_.notify_all();
  if (reply.kind == Kind::kStall) waitReadable(fd, kIoBound);  // until the client hangs up
  if (reply.kind == Kind::kHoldThenAnswer) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kIoBound, [&] { return released_ || stopping_; });
  }
  if (reply.kind == Kind::kResetWhileAnswering) {
    sendAll(fd, "HTTP/1.1 200 Test\r\nContent-Length: 64\r\nConnection: close\r\n\r\npartial");
    resetOnClose(fd);
  }
  if (reply.kind == Kind::kAnswer || reply.kind == Kind::kTrickle ||
      reply.kind == Kind::kHoldThenAnswer) {
    answer(fd, reply);
  }
}

bool QVTestHttpServer::waitReadable(int fd, std::chrono::milliseconds bound) const {
  pollfd fds[2] = {{fd, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
  const int ready = ::poll(fds, 2, static_cast<int>(bound.count()));
  return ready > 0 && fds[0].revents && !fds[1].revents;
}

bool QVTestHttpServer::receive(int fd, std::string& data, size_t most) const {
  char buffer[65536];
  if (!waitReadable(fd, kIoBound)) return false;
  const ssize_t n = ::recv(fd, buffer, std::min(most, sizeof buffer), 0);
  if (n > 0) data.append(buffer, static_cast<size_t>(n));
  return n > 0;
}

bool QVTestHttpServer::readHead(int fd, QVRecordedRequest& request) const {
  std::string data;
  size_t end = 0;
  while ((end = data.find("\r\n\r\n")) == std::string::npos) {
    if (data.size() > kMaxHeaderBytes || !receive(fd, data, kMaxHeaderBytes)) return false;
  }
  request = parseHead(data.substr(0, end + 4));
  request.body = data.substr(end + 4);
  return true;
}

bool QVTestHttpServer::readBody(int fd, QVRecordedRequest& request, bool slowly) const {
  const size_t length =
      std::strtoull(request.header("Content-Length").value_or("0").c_str(), nullptr, 10);
  while (request.body.size() < length) {
    if (slowly) std::this_thread::sleep_for(QVTestReply::kTrickleGap);
    if (!receive(fd, request.body, slowly ? QVTestReply::kTrickleBytes : length)) return false;
  }
  return true;
}

QVTestReply QVTestHttpServer::nextReply() {
  std::lock_guard lock(mutex_);
  if (replies_.empty()) return QVTestReply{};
  QVTestReply reply = std::move(replies_.front());
  replies_.pop_front();
  return reply;
}

}  // namespace qv::test
