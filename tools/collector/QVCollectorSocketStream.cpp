#include "QVCollectorSocketStream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/value/QVText.h"

namespace qv::collector {

namespace {

// A bound on a head kept, past what cpp-httplib itself accepts.
constexpr size_t kHeadLimit = 1 << 20;

void addressOf(const sockaddr_storage& address, std::string& ip, int& port) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    const auto& in4 = reinterpret_cast<const sockaddr_in&>(address);
    ::inet_ntop(AF_INET, &in4.sin_addr, text, sizeof text);
    port = ntohs(in4.sin_port);
  } else if (address.ss_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
    ::inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
    port = ntohs(in6.sin6_port);
  }
  ip = text;
}

}  // namespace

QVCollectorSocketStream::QVCollectorSocketStream(int socket, std::chrono::microseconds readTimeout,
                                                 std::chrono::microseconds writeTimeout,
                                                 std::chrono::milliseconds requestTimeout)
    : socket_(socket),
      readTimeout_(readTimeout),
      writeTimeout_(writeTimeout),
      requestTimeout_(requestTimeout) {}

void QVCollectorSocketStream::beginRequest() {
  head_.clear();
  headComplete_ = false;
  bodyRead_ = 0;
  overLimit_ = false;
  deadline_ = std::chrono::steady_clock::now() + requestTimeout_;
}

std::chrono::microseconds QVCollectorSocketStream::readWait() const {
  using std::chrono::microseconds;
  const auto left =
      std::chrono::duration_cast<microseconds>(deadline_ - std::chrono::steady_clock::now());
  return std::max(microseconds(0), std::min(readTimeout_, left));
}

QVCollectorRequest::Headers QVCollectorSocketStream::headers() const {
  QVCollectorRequest::Headers headers;
  size_t start = head_.find('\n');  // past the request line
  while (start != std::string::npos && start + 1 < head_.size()) {
    const size_t end = head_.find('\n', start + 1);
    const std::string_view line = std::string_view(head_).substr(
        start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      headers.emplace_back(QVText::trimmed(line.substr(0, colon), " \t\r"),
                           QVText::trimmed(line.substr(colon + 1), " \t\r"));
    }
    start = end;
  }
  return headers;
}

void QVCollectorSocketStream::keep(const char* bytes, size_t size) {
  // Byte by byte until the blank line, so no body byte is ever kept.
  for (size_t i = 0; i < size && !headComplete_ && head_.size() < kHeadLimit; ++i) {
    head_ += bytes[i];
    headComplete_ = head_.ends_with("\n\r\n") || head_.ends_with("\n\n");
  }
}

bool QVCollectorSocketStream::waitFor(short events, std::chrono::microseconds timeout) const {
  pollfd entry{socket_, events, 0};
  const int milliseconds =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(timeout).count());
  int ready;
  do {
    ready = ::poll(&entry, 1, milliseconds);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

bool QVCollectorSocketStream::is_readable() const {
  return hasBuffered() || waitFor(POLLIN, readWait());
}

bool QVCollectorSocketStream::is_writable() const { return waitFor(POLLOUT, writeTimeout_); }

ssize_t QVCollectorSocketStream::read(char* ptr, size_t size) {
  if (!hasBuffered()) {
    if (!waitFor(POLLIN, readWait())) return -1;
    buffered_.resize(std::max(kBufferSize, size));
    ssize_t got;
    do {
      got = ::recv(socket_, buffered_.data(), buffered_.size(), 0);
    } while (got < 0 && errno == EINTR);
    buffered_.resize(got > 0 ? static_cast<size_t>(got) : 0);
    position_ = 0;
    if (got <= 0) return got;
  }
  const size_t count = std::min(size, buffered_.size() - position_);
  if (headComplete_ && (bodyRead_ += count) > bodyLimit_) {
    overLimit_ = true;
    return -1;
  }
  std::memcpy(ptr, buffered_.data() + position_, count);
  position_ += count;
  if (!headComplete_) keep(ptr, count);
  return static_cast<ssize_t>(count);
}

ssize_t QVCollectorSocketStream::write(const char* ptr, size_t size) {
  if (!is_writable()) return -1;
  ssize_t sent;
  do {
    // A client that hangs up early must not end the collector with SIGPIPE.
    sent = ::send(socket_, ptr, size, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

void QVCollectorSocketStream::get_remote_ip_and_port(std::string& ip, int& port) const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getpeername(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    addressOf(address, ip, port);
  }
}

void QVCollectorSocketStream::get_local_ip_and_port(std::string& ip, int& port) const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    addressOf(address, ip, port);
  }
}

}  // namespace qv::collector
