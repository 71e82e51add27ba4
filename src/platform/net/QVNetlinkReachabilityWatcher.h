#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/net/QVNetlinkRoutes.h"
#include "platform/net/QVNetlinkSocket.h"

namespace qv {

// The kernel's routing event groups a reachability answer depends on.
uint32_t netlinkWatchedGroups();

// Keeps one destination's reachability flags current without asking the
// kernel on every read. A socket subscribed to the kernel's link, address and
// route events is opened first; a thread of its own (started by the first
// published() call) blocks on it and, after each burst of events, drains it,
// asks the kernel for the route again and publishes the flags in one atomic
// word. Readers of published() then pay one acquire load: no system call and
// no lock that another reader takes.
//
// What a reader sees: every change the kernel reported (queued on the socket)
// before the thread last drained it. awaitPublished() waits until that covers
// every report queued before the call; current() reads synchronously.
class QVNetlinkReachabilityWatcher {
 public:
  explicit QVNetlinkReachabilityWatcher(QVNetlinkDestination destination);
  // Wakes the thread and joins it; it never waits on the kernel for longer
  // than one reply's patience.
  ~QVNetlinkReachabilityWatcher();
  QVNetlinkReachabilityWatcher(const QVNetlinkReachabilityWatcher&) = delete;
  QVNetlinkReachabilityWatcher& operator=(const QVNetlinkReachabilityWatcher&) = delete;

  // Whether the kernel gave the subscribed socket; without it every read
  // asks the kernel.
  bool isOpen() const { return socket_.isOpen(); }

  // The flags as last published, none when the kernel could not be asked.
  // Until a first answer is published (and after a failed one) this asks the
  // kernel itself.
  std::optional<uint32_t> published() {
    const uint64_t word = word_.load(std::memory_order_acquire);
    if (word & kKnown) return static_cast<uint32_t>(word);
    return publishedSlowly();
  }

  // The flags as of now: reads again when the kernel reported anything since
  // the last read, and publishes the answer.
  std::optional<uint32_t> current();

  // Waits until every report the kernel queued before this call has been
  // handled by the thread and its answer published; false when that did not
  // happen within patience (no thread, or one that fell behind).
  bool awaitPublished(std::chrono::milliseconds patience);

 private:
  static constexpr uint64_t kKnown = uint64_t{1} << 32;

  std::optional<uint32_t> publishedSlowly();
  void startThreadLocked();
  void run();
  bool waitForEvents();
  std::optional<uint32_t> currentLocked();
  void readLocked();
  bool nothingQueuedLocked() const;

  const QVNetlinkDestination destination_;
  QVNetlinkSocket socket_;
  // Read on every post, written only when an answer is published: a line of
  // its own, so that the mutex's traffic does not evict it from the readers.
  alignas(64) std::atomic<uint64_t> word_{0};  // kKnown | flags, or 0

  // Taken by the thread and by synchronous reads; published() takes it only
  // until a first answer is known.
  alignas(64) std::mutex mutex_;
  std::condition_variable publishedOne_;
  std::optional<uint32_t> last_;  // guarded by mutex_
  bool started_ = false;          // guarded by mutex_
  bool running_ = false;          // guarded by mutex_; set once, with thread_
  int wake_ = -1;                 // an eventfd that tells the thread to stop
  std::thread thread_;
};

}  // namespace qv
