#pragma once

#include <atomic>

namespace qv {

// The descriptor that a host's own event loop (GLib, Qt, libuv, poll) watches
// to learn that a QVRunLoop has work: an epoll set holding an eventfd, which
// is signalled whenever a task reaches the loop, and the loop's watched
// descriptors, level-triggered, so it stays readable while any of them has
// data unread. Made on first use and never destroyed.
class QVLoopWakeup {
 public:
  QVLoopWakeup();
  ~QVLoopWakeup();
  QVLoopWakeup(const QVLoopWakeup&) = delete;
  QVLoopWakeup& operator=(const QVLoopWakeup&) = delete;

  // -1 when the kernel refused the descriptors.
  int descriptor() const { return epoll_; }
  // Async-safe enough for any thread: one write to the eventfd.
  void signal();
  // Clears the signal and answers whether there was one. The loop drains
  // before it runs what is due, so that work arriving meanwhile signals
  // again.
  bool drain();
  void add(int fd);
  void remove(int fd);

 private:
  int epoll_ = -1;
  int event_ = -1;
};

}  // namespace qv
