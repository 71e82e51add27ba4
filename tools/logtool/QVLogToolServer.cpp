#include "QVLogToolServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "QVLogToolPrinter.h"

namespace qv {

namespace {

std::string peerName(const sockaddr_storage& address) {
  char host[INET6_ADDRSTRLEN] = "?";
  uint16_t port = 0;
  if (address.ss_family == AF_INET) {
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
    ::inet_ntop(AF_INET, &ipv4.sin_addr, host, sizeof host);
    port = ntohs(ipv4.sin_port);
    return std::string(host) + ":" + std::to_string(port);
  }
  const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
  ::inet_ntop(AF_INET6, &ipv6.sin6_addr, host, sizeof host);
  port = ntohs(ipv6.sin6_port);
  // An IPv4 peer on a dual-stack socket reads better without its prefix.
  std::string text = host;
  if (text.rfind("::ffff:", 0) == 0 && text.find('.') != std::string::npos) {
    return text.substr(7) + ":" + std::to_string(port);
  }
  return "[" + text + "]:" + std::to_string(port);
}

}  // namespace

QVLogToolServer::QVLogToolServer(QVRunLoop& loop, QVLogToolPrinter& printer,
                                 std::chrono::milliseconds idleTimeout)
    : loop_(loop), printer_(printer), idleTimeout_(idleTimeout) {}

QVLogToolServer::~QVLogToolServer() {
  while (!connections_.empty()) drop(connections_.begin()->first);
  if (listenerWatch_) loop_.cancelWatch(listenerWatch_);
  if (listener_ >= 0) ::close(listener_);
}

int QVLogToolServer::openListener(int family, uint16_t port, std::string& error) {
  const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("socket: ") + std::strerror(errno);
    return -1;
  }
  const int on = 1;
  const int off = 0;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_storage address{};
  socklen_t length;
  if (family == AF_INET6) {
    // Dual stack, so that IPv4 clients reach the same socket.
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    auto& ipv6 = reinterpret_cast<sockaddr_in6&>(address);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_addr = in6addr_any;
    ipv6.sin6_port = htons(port);
    length = sizeof ipv6;
  } else {
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(address);
    ipv4.sin_family = AF_INET;
    ipv4.sin_addr.s_addr = htonl(INADDR_ANY);
    ipv4.sin_port = htons(port);
    length = sizeof ipv4;
  }
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 16) != 0) {
    error = "port " + std::to_string(port) + ": " + std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

uint16_t QVLogToolServer::listen(uint16_t port, std::string& error) {
  listener_ = openListener(AF_INET6, port, error);
  if (listener_ < 0) listener_ = openListener(AF_INET, port, error);
  if (listener_ < 0) return 0;
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&bound), &length);
  const uint16_t chosen = bound.ss_family == AF_INET6
                              ? ntohs(reinterpret_cast<sockaddr_in6&>(bound).sin6_port)
                              : ntohs(reinterpret_cast<sockaddr_in&>(bound).sin_port);
  watchListener();
  if (listenerWatch_ == 0) {
    error = "the listening socket cannot be watched";
    return 0;
  }
  return chosen;
}

void QVLogToolServer::watchListener() {
  listenerWatch_ = loop_.watchReadable(listener_, [this] { acceptAll(); });
}

void QVLogToolServer::restListener() {
  std::fprintf(stderr, "qvcore-logtool: cannot accept a connection (%s); trying again in %lld s\n",
               std::strerror(errno), static_cast<long long>(kAcceptRest.count()));
  loop_.cancelWatch(listenerWatch_);
  listenerWatch_ = 0;
  later(kAcceptRest, &QVLogToolServer::watchListener);
}

void QVLogToolServer::later(std::chrono::milliseconds delay, void (QVLogToolServer::*task)()) {
  loop_.postAfter(delay, [alive = std::weak_ptr<QVLogToolServer*>(self_), task] {
    if (const auto self = alive.lock()) ((**self).*task)();
  });
}

void QVLogToolServer::acceptAll() {
  for (;;) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const int fd = ::accept4(listener_, reinterpret_cast<sockaddr*>(&peer), &length,
                             SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // The connection stays queued, so the listener would be readable
      // again at once.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        restListener();
      }
      return;  // EAGAIN: all taken
    }
    Connection& connection = connections_[fd];
    connection.peer = peerName(peer);
    connection.lastHeard = std::chrono::steady_clock::now();
    scheduleSweep();
    std::fprintf(stderr, "qvcore-logtool: connection from %s\n", connection.peer.c_str());
    printer_.opened(fd, connection.peer);
    connection.watch = loop_.watchReadable(fd, [this, fd] { readFrom(fd); });
    if (connection.watch == 0) drop(fd);
  }
}

void QVLogToolServer::readFrom(int fd) {
  if (!connections_.count(fd)) return;
  char buffer[65536];
  const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
  if (got > 0) {
    connections_[fd].lastHeard = std::chrono::steady_clock::now();
    printer_.received(fd, std::string_view(buffer, static_cast<size_t>(got)));
  } else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
    drop(fd);
  }
}

void QVLogToolServer::scheduleSweep() {
  if (sweepScheduled_) return;
  sweepScheduled_ = true;
  later(std::max(idleTimeout_ / 4, std::chrono::milliseconds(100)), &QVLogToolServer::sweepIdle);
}

void QVLogToolServer::sweepIdle() {
  sweepScheduled_ = false;
  const auto cutoff = std::chrono::steady_clock::now() - idleTimeout_;
  std::vector<int> idle;
  for (const auto& [fd, connection] : connections_) {
    if (connection.lastHeard <= cutoff) idle.push_back(fd);
  }
  for (int fd : idle) {
    std::fprintf(stderr, "qvcore-logtool: %s sent nothing for %lld s\n",
                 connections_[fd].peer.c_str(),
                 static_cast<long long>(
                     std::chrono::duration_cast<std::chrono::seconds>(idleTimeout_).count()));
    drop(fd);
  }
  if (!connections_.empty()) scheduleSweep();
}

void QVLogToolServer::drop(int fd) {
  auto found = connections_.find(fd);
  if (found == connections_.end()) return;
  if (found->second.watch) loop_.cancelWatch(found->second.watch);
  printer_.closed(fd);
  std::fprintf(stderr, "qvcore-logtool: %s closed\n", found->second.peer.c_str());
  connections_.erase(found);
  ::close(fd);
}

}  // namespace qv
