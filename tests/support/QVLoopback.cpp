#include "support/QVLoopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace qv::test {

namespace {

sockaddr* loopback(sockaddr_in& address, int port) {
  address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

int bindLoopback(int& port, bool listen, int receiveBufferBytes) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address;
  socklen_t length = sizeof address;
  if (receiveBufferBytes > 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes);
  }
  if (fd < 0 || ::bind(fd, loopback(address, 0), length) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      (listen && ::listen(fd, 16) != 0)) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("cannot bind a socket on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  return fd;
}

int connectLoopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address;
  if (fd >= 0 && ::connect(fd, loopback(address, port), sizeof address) == 0) return fd;
  if (fd >= 0) ::close(fd);
  return -1;
}

bool sendAll(int fd, const std::string& bytes) {
  ssize_t n = 1;
  for (size_t sent = 0; sent < bytes.size() && n > 0; sent += static_cast<size_t>(n)) {
    n = std::max<ssize_t>(::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL), 0);
  }
  return n > 0;
}

std::string receiveUntil(int fd, const std::string& part) {
  std::string got;
  char buffer[65536];
  pollfd entry{fd, POLLIN, 0};
  for (ssize_t n = 1; n > 0 && (part.empty() || got.find(part) == std::string::npos);) {
    n = ::poll(&entry, 1, 10000) == 1 ? ::recv(fd, buffer, sizeof buffer, 0) : 0;
    got.append(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  }
  return got;
}

std::string exchange(int port, const std::string& bytes) {
  const int fd = connectLoopback(port);
  if (fd < 0) return {};
  // A server may answer and close before it has read everything.
  sendAll(fd, bytes);
  const std::string answer = receiveUntil(fd, "");
  ::close(fd);
  return answer;
}

}  // namespace qv::test
