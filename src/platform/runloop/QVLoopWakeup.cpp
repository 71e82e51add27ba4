#include "platform/runloop/QVLoopWakeup.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace qv {

QVLoopWakeup::QVLoopWakeup() {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  event_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll_ < 0 || event_ < 0) {
    if (epoll_ >= 0) ::close(epoll_);
    epoll_ = -1;
    return;
  }
  add(event_);
}

QVLoopWakeup::~QVLoopWakeup() {
  if (epoll_ >= 0) ::close(epoll_);
  if (event_ >= 0) ::close(event_);
}

void QVLoopWakeup::signal() {
  const uint64_t one = 1;
  // A full counter is still readable, so a failed write loses nothing.
  [[maybe_unused]] const ssize_t ignored = ::write(event_, &one, sizeof one);
}

bool QVLoopWakeup::drain() {
  uint64_t count = 0;
  return ::read(event_, &count, sizeof count) == sizeof count && count > 0;
}

void QVLoopWakeup::add(int fd) {
  if (epoll_ < 0) return;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
}

void QVLoopWakeup::remove(int fd) {
  if (epoll_ >= 0) ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
}

}  // namespace qv
