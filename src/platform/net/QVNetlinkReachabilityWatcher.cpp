#include "platform/net/QVNetlinkReachabilityWatcher.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace qv {

uint32_t netlinkWatchedGroups() {
  return RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE |
         RTMGRP_IPV6_ROUTE;
}

QVNetlinkReachabilityWatcher::QVNetlinkReachabilityWatcher(QVNetlinkDestination destination)
    : destination_(destination), socket_(netlinkWatchedGroups()) {}

QVNetlinkReachabilityWatcher::~QVNetlinkReachabilityWatcher() {
  if (running_) {
    const uint64_t one = 1;
    // An eventfd write of one never blocks nor fails short of overflow.
    while (::write(wake_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread_.join();
  }
  if (wake_ >= 0) ::close(wake_);
}

std::optional<uint32_t> QVNetlinkReachabilityWatcher::publishedSlowly() {
  if (!isOpen()) return netlinkReachabilityFlags(destination_);
  // A first answer, or one after a failed read: an answer read before the
  // thread ran was not published.
  std::lock_guard lock(mutex_);
  startThreadLocked();
  socket_.drain();
  readLocked();
  return last_;
}

std::optional<uint32_t> QVNetlinkReachabilityWatcher::current() {
  if (!isOpen()) return netlinkReachabilityFlags(destination_);
  std::lock_guard lock(mutex_);
  return currentLocked();
}

bool QVNetlinkReachabilityWatcher::awaitPublished(std::chrono::milliseconds patience) {
  if (!isOpen()) return false;
  std::unique_lock lock(mutex_);
  startThreadLocked();
  if (!running_) return false;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  // The thread drains and publishes under the lock: once nothing is queued,
  // everything queued before has been read and its answer published.
  while (!nothingQueuedLocked()) {
    if (publishedOne_.wait_until(lock, deadline) == std::cv_status::timeout) {
      return nothingQueuedLocked();
    }
  }
  return true;
}

// Signals are the host's: the thread blocks them all, so that a handler
// never runs on it.
void QVNetlinkReachabilityWatcher::startThreadLocked() {
  if (started_) return;
  started_ = true;
  wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) return;
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  try {
    thread_ = std::thread([this] { run(); });
    running_ = true;
  } catch (const std::system_error&) {
    // No thread: published() stays a read of the kernel on every call.
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void QVNetlinkReachabilityWatcher::run() {
  while (waitForEvents()) {
    std::lock_guard lock(mutex_);
    if (socket_.drain()) readLocked();
  }
}

// Blocks until the kernel reports something (true) or the watcher stops.
bool QVNetlinkReachabilityWatcher::waitForEvents() {
  pollfd fds[2] = {{socket_.fd(), POLLIN, 0}, {wake_, POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (fds[1].revents != 0 || (fds[0].revents & POLLNVAL)) return false;
    if (fds[0].revents != 0) return true;
  }
}

// A failed read is not kept: the next call asks again.
std::optional<uint32_t> QVNetlinkReachabilityWatcher::currentLocked() {
  if (socket_.drain() || !last_) readLocked();
  return last_;
}

// Drained before: an event that arrives during the read stays queued and
// makes the thread read again.
void QVNetlinkReachabilityWatcher::readLocked() {
  last_ = netlinkReachabilityFlags(destination_);
  // Without a thread nothing would keep a published answer current.
  const uint64_t word = last_ && running_ ? kKnown | *last_ : 0;
  word_.store(word, std::memory_order_release);
  publishedOne_.notify_all();
}

// An error other than "nothing queued" (an overflow, above all) is a report
// still to be handled.
bool QVNetlinkReachabilityWatcher::nothingQueuedLocked() const {
  char byte = 0;
  const ssize_t got = ::recv(socket_.fd(), &byte, sizeof byte, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

}  // namespace qv
