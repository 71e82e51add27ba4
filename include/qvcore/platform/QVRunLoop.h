#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVClock.h"

namespace qv {

// A queue of work for one thread: tasks posted from any thread, delayed tasks
// measured on the loop's clock, and the timers built on them. One thread at a
// time pumps a loop (run, runFor, runUntil, runUntilIdle); tasks run on that
// thread, one at a time, in the order in which they became ready. An exception
// thrown by a task leaves the pump that ran it; the loop stays usable.
class QV_EXPORT QVRunLoop {
 public:
  using Task = std::function<void()>;
  using Duration = QVClock::Duration;
  using TimePoint = QVClock::TimePoint;
  using WatchId = uint64_t;

  // A loop on the real clock, or on the given one.
  QVRunLoop();
  explicit QVRunLoop(std::shared_ptr<QVClock> clock);
  ~QVRunLoop();
  QVRunLoop(const QVRunLoop&) = delete;
  QVRunLoop& operator=(const QVRunLoop&) = delete;

  // The loop that the host runs on its main thread. Never destroyed.
  static QVRunLoop& main();

  // The loop of the calling thread: the one it is pumping right now, else the
  // main loop on the process's main thread, else a loop of the thread's own,
  // made on first use and destroyed when the thread ends. Nothing runs that
  // loop's tasks unless the thread pumps it.
  static QVRunLoop& current();
  bool isCurrent() const;

  // Safe from any thread.
  void post(Task task);
  void postAfter(Duration delay, Task task);
  void postAt(TimePoint due, Task task);

  // Calls readable on this loop whenever fd is readable, until cancelWatch().
  // readable should read what is there: while data is left unread it is
  // called again and again. The loop watches a duplicate of fd and does all
  // the work of the watch on its own thread, so fd may be closed once the
  // watch is cancelled. Answers 0 when fd cannot be watched. Safe from any
  // thread.
  WatchId watchReadable(int fd, Task readable);
  // Once this returns, readable is not called again, except that a call
  // already running on the loop's thread finishes. The loop lets go of its
  // duplicate on its next pump, or when it is destroyed. Safe from any
  // thread; unknown ids are ignored.
  void cancelWatch(WatchId id);

  std::shared_ptr<QVClock> clock() const;
  // Replaces the clock; a null clock means the real one. Pending delayed tasks
  // keep the time they had left. Tests give the main loop a QVFakeClock.
  void setClock(std::shared_ptr<QVClock> clock);

  // Runs tasks until stop(), waiting for work when there is none.
  void run();
  // Makes the pump under way return after the task it is running; with no
  // pump under way, the next one returns at once. Safe from any thread.
  void stop();
  // Runs tasks for at most limit of real time, or until stop(). Returns the
  // number of tasks run.
  size_t runFor(Duration limit);
  // Runs every task that is ready, including delayed tasks due on the clock
  // and the tasks those post, and returns once none is ready. Never waits.
  size_t runUntilIdle();
  // Runs tasks until predicate holds (true) or timeout of real time passes or
  // stop() is called (false). The predicate is checked after every task and
  // at short intervals, so other threads may make it true.
  bool runUntil(const std::function<bool()>& predicate, Duration timeout);

  // Driving the loop from a host's own event loop (GLib, Qt, libuv, poll)
  // instead of run(): watch pollDescriptor() for reading, wait at most
  // pollTimeoutMillis(), and call dispatchPending() on the loop's thread when
  // the descriptor is readable or the time is up.
  //
  // A descriptor that is readable while the loop has work: a task posted, a
  // delayed task released, a watched descriptor readable, stop() called.
  // Made on first call and kept open for the life of the process (a thread
  // that posted may signal it after the loop is gone); the host never reads
  // or closes it. -1 when the system refused one.
  int pollDescriptor();
  // Runs every task that is ready, like runUntilIdle(), and never waits.
  size_t dispatchPending();
  // Milliseconds until the next delayed task is due (0 when one is due now),
  // or -1 when none is waiting on the real clock, as poll() takes them.
  int pollTimeoutMillis() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace qv
