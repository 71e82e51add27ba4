#include "platform/net/QVSocketConnection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>

#include "platform/net/QVNetworkThread.h"
#include "platform/net/QVSocketInputStream.h"
#include "platform/net/QVSocketOutputStream.h"
#include "qvcore/platform/QVStreamException.h"

namespace qv {

namespace {

std::string systemError(const char* what, int error) {
  return std::string(what) + ": " + std::strerror(error);
}

}  // namespace

// The network thread's view of the socket: a duplicate of it, so that the
// connection may close its own descriptor whenever it likes.
struct QVSocketConnection::Watcher {
  explicit Watcher(asio::io_context& io) : descriptor(io) {}
  asio::posix::stream_descriptor descriptor;
};

QVSocketConnection::Streams QVSocketConnection::makeStreams(const std::vector<uint8_t>& address) {
  auto connection = std::make_shared<QVSocketConnection>(address);
  auto input = std::make_shared<QVSocketInputStream>(connection);
  auto output = std::make_shared<QVSocketOutputStream>(connection);
  connection->input_ = input;
  connection->output_ = output;
  return {input, output};
}

QVSocketConnection::QVSocketConnection(std::vector<uint8_t> address)
    : address_(std::move(address)) {}

QVSocketConnection::~QVSocketConnection() { shutDown(); }

void QVSocketConnection::streamOpened() {
  State state;
  std::string error;
  {
    std::lock_guard lock(mutex_);
    state = state_;
    error = error_.empty() ? "the connection is closed" : error_;
  }
  if (state == State::kIdle) {
    connect();
  } else if (state == State::kOpen) {
    tellOpened();
  } else if (state == State::kFailed || state == State::kClosed) {
    fail(error);
  }
}

void QVSocketConnection::streamClosed() {
  bool last;
  {
    std::lock_guard lock(mutex_);
    last = ++closedStreams_ >= 2;
  }
  if (last) shutDown();
}

void QVSocketConnection::connect() {
  sockaddr_storage target{};
  const size_t length = std::min(address_.size(), sizeof target);
  std::memcpy(&target, address_.data(), length);
  const int fd = ::socket(target.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(systemError("socket", errno));
  {
    std::lock_guard lock(mutex_);
    fd_ = fd;
    state_ = State::kConnecting;
  }
  const int result =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&target), static_cast<socklen_t>(length));
  if (result != 0 && errno != EINPROGRESS) return fail(systemError("connect", errno));

  const int watched = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (watched < 0) return fail(systemError("dup", errno));
  auto watcher = std::make_shared<Watcher>(QVNetworkThread::shared().context());
  {
    std::lock_guard lock(mutex_);
    watcher_ = watcher;
  }
  asio::post(QVNetworkThread::shared().context(), [watcher, watched] {
    std::error_code ignored;
    watcher->descriptor.assign(watched, ignored);
  });
  // Writable is how a non-blocking connect says that it ended.
  watch(true);
}

void QVSocketConnection::watch(bool forWriting) {
  std::shared_ptr<Watcher> watcher;
  {
    std::lock_guard lock(mutex_);
    bool& watched = forWriting ? writeWatched_ : readWatched_;
    if (watched || !watcher_) return;
    watched = true;
    watcher = watcher_;
  }
  std::weak_ptr<QVSocketConnection> weak = weak_from_this();
  asio::post(QVNetworkThread::shared().context(), [weak, watcher, forWriting] {
    const auto type = forWriting ? asio::posix::stream_descriptor::wait_write
                                 : asio::posix::stream_descriptor::wait_read;
    watcher->descriptor.async_wait(type, [weak, forWriting](const std::error_code& error) {
      if (error == asio::error::operation_aborted) return;
      if (auto self = weak.lock()) self->waitEnded(forWriting);
    });
  });
}

void QVSocketConnection::waitEnded(bool forWriting) {
  State state;
  {
    std::lock_guard lock(mutex_);
    (forWriting ? writeWatched_ : readWatched_) = false;
    state = state_;
  }
  if (!forWriting) return readableNow();
  if (state == State::kConnecting) return connectEnded();
  if (state == State::kOpen) {
    if (auto output = output_.lock()) output->spaceAvailable();
  }
}

void QVSocketConnection::connectEnded() {
  int fd;
  {
    std::lock_guard lock(mutex_);
    fd = fd_;
  }
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  if (error != 0) return fail(systemError("connect", error));
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kConnecting) return;
    state_ = State::kOpen;
  }
  tellOpened();
}

void QVSocketConnection::readableNow() {
  int fd;
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kOpen) return;
    fd = fd_;
  }
  // Peek, so that the bytes stay for the reader and an end is told apart
  // from data.
  char byte;
  const ssize_t seen = ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (seen > 0) {
    if (auto input = input_.lock()) input->bytesArrived();
  } else if (seen == 0) {
    if (auto input = input_.lock()) input->endEncountered();
  } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    watch(false);
  } else {
    fail(systemError("recv", errno));
  }
}

void QVSocketConnection::watchReadable() { watch(false); }

void QVSocketConnection::tellOpened() {
  if (auto input = input_.lock()) input->connected();
  if (auto output = output_.lock()) output->connected();
}

void QVSocketConnection::fail(const std::string& error) {
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kClosed) state_ = State::kFailed;
    error_ = error;
  }
  if (auto input = input_.lock()) input->failed(error);
  if (auto output = output_.lock()) output->failed(error);
}

void QVSocketConnection::shutDown() {
  int fd;
  std::shared_ptr<Watcher> watcher;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::kClosed) return;
    state_ = State::kClosed;
    fd = std::exchange(fd_, -1);
    watcher = std::move(watcher_);
  }
  if (watcher) {
    // Closing the duplicate ends the waits on it, which lets go of watcher.
    asio::post(QVNetworkThread::shared().context(), [watcher] {
      std::error_code ignored;
      watcher->descriptor.close(ignored);
    });
  }
  if (fd >= 0) {
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
  }
}

int QVSocketConnection::socketOrThrow() const {
  std::lock_guard lock(mutex_);
  if (state_ == State::kFailed) throw QVStreamException(error_);
  if (fd_ < 0) throw QVStreamException("the connection is closed");
  return fd_;
}

bool QVSocketConnection::pollFor(short events, int timeoutMs) const {
  pollfd entry{};
  {
    std::lock_guard lock(mutex_);
    if (fd_ < 0) return false;
    entry.fd = fd_;
  }
  entry.events = events;
  int ready;
  do {
    ready = ::poll(&entry, 1, timeoutMs);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

ptrdiff_t QVSocketConnection::send(const uint8_t* buffer, size_t length) {
  if (length == 0) return 0;
  for (;;) {
    const int fd = socketOrThrow();
    const ssize_t sent = ::send(fd, buffer, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    const int error = sent > 0 ? 0 : sent < 0 ? errno : EPIPE;
    if (error == EINTR) continue;
    if (error != 0 && error != EAGAIN && error != EWOULDBLOCK) {
      fail(systemError("send", error));
      throw QVStreamException(systemError("send", error));
    }
    // Whether the kernel took bytes or none, the writer hears when there is
    // room again, as after a write to a blocking stream; it never waits here.
    watch(true);
    return sent > 0 ? sent : 0;
  }
}

ptrdiff_t QVSocketConnection::receive(uint8_t* buffer, size_t length) {
  int fd;
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kOpen) return -1;
    fd = fd_;
  }
  const ssize_t got = ::recv(fd, buffer, length, MSG_DONTWAIT);
  if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))) {
    watch(false);
    return got > 0 ? got : 0;
  }
  if (got == 0) {
    if (auto input = input_.lock()) input->endEncountered();
    return 0;
  }
  fail(systemError("recv", errno));
  return -1;
}

bool QVSocketConnection::hasBytesAvailable() const { return pollFor(POLLIN, 0); }

bool QVSocketConnection::hasSpaceAvailable() const { return pollFor(POLLOUT, 0); }

}  // namespace qv
