#include "platform/net/QVNetlinkSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace qv {
namespace {

// The kernel answers route and link requests while it handles the send, so
// the reply is normally queued already; the wait only guards against a
// kernel that never answers.
constexpr std::chrono::milliseconds kReplyPatience{1000};

// Large enough for a link with all its attributes; a bigger message is
// refused rather than read in part.
constexpr size_t kReceiveBuffer = 64 * 1024;

}  // namespace

QVNetlinkSocket::QVNetlinkSocket(uint32_t groups) {
  fd_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd_ < 0) return;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (::bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

QVNetlinkSocket::~QVNetlinkSocket() {
  if (fd_ >= 0) ::close(fd_);
}

std::optional<QVNetlinkSocket::Reply> QVNetlinkSocket::transact(std::vector<uint8_t> request) {
  if (fd_ < 0 || request.size() < sizeof(nlmsghdr)) return std::nullopt;
  auto* header = reinterpret_cast<nlmsghdr*>(request.data());
  header->nlmsg_seq = ++sequence_;
  header->nlmsg_pid = 0;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  const ssize_t sent = ::sendto(fd_, request.data(), request.size(), 0,
                                reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
  if (sent != static_cast<ssize_t>(request.size())) return std::nullopt;
  return awaitReply(header->nlmsg_seq);
}

std::optional<QVNetlinkSocket::Reply> QVNetlinkSocket::awaitReply(uint32_t sequence) {
  std::vector<uint8_t> buffer(kReceiveBuffer);
  const auto deadline = std::chrono::steady_clock::now() + kReplyPatience;
  for (;;) {
    sockaddr_nl from{};
    socklen_t fromLength = sizeof from;
    const ssize_t got = ::recvfrom(fd_, buffer.data(), buffer.size(), MSG_TRUNC,
                                   reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return std::nullopt;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd readable{fd_, POLLIN, 0};
      ::poll(&readable, 1, static_cast<int>(left.count()));
      continue;
    }
    if (static_cast<size_t>(got) > buffer.size()) return std::nullopt;
    if (from.nl_pid != 0) continue;  // only the kernel answers
    size_t left = static_cast<size_t>(got);
    for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
      if (message->nlmsg_seq != sequence) continue;  // a late answer to an earlier request
      Reply reply;
      if (message->nlmsg_type == NLMSG_ERROR) {
        if (message->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return std::nullopt;
        reply.error = -static_cast<const nlmsgerr*>(NLMSG_DATA(message))->error;
        return reply;
      }
      const auto* bytes = reinterpret_cast<const uint8_t*>(message);
      reply.message.assign(bytes, bytes + message->nlmsg_len);
      return reply;
    }
  }
}

bool QVNetlinkSocket::drain() {
  if (fd_ < 0) return false;
  std::vector<uint8_t> buffer(kReceiveBuffer);
  bool any = false;
  for (;;) {
    const ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), MSG_TRUNC);
    if (got >= 0) {
      any = true;
    } else if (errno == ENOBUFS) {
      any = true;  // the kernel dropped events: something changed all the same
    } else if (errno != EINTR) {
      return any;
    }
  }
}

}  // namespace qv
