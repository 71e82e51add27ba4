#include "qvcore/platform/QVRunLoop.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <fcntl.h>
#include <unistd.h>

#include "platform/host/QVSwallowed.h"
#include "platform/runloop/QVLoopWakeup.h"
#include "platform/runloop/QVTimerQueue.h"
#include "qvcore/platform/QVRealClock.h"

namespace qv {
namespace {

// How often runUntil looks at a predicate that another thread may change.
constexpr std::chrono::milliseconds kPredicateRecheck{5};

// The loop that the calling thread is pumping right now, if any.
thread_local QVRunLoop* tlsPumping = nullptr;
// The loop of a thread that has no other, made on first use.
thread_local std::unique_ptr<QVRunLoop> tlsOwnLoop;

#if !defined(__linux__)
// Static initialisation runs on the main thread unless the library is loaded
// late from another one; Linux asks the kernel instead.
const std::thread::id gInitialThread = std::this_thread::get_id();
#endif

bool isMainThread() {
#if defined(__linux__)
  return ::gettid() == ::getpid();
#else
  return std::this_thread::get_id() == gInitialThread;
#endif
}

// One watch of a file descriptor. The descriptor object is touched only by
// tasks on the loop's thread, or by the loop's destructor when nothing pumps
// it, which is all the thread safety Asio asks of it.
struct DescriptorWatch {
  DescriptorWatch(int duplicate, QVRunLoop::Task readable)
      : pendingFd(duplicate),
        readable(std::make_shared<const QVRunLoop::Task>(std::move(readable))) {}
  ~DescriptorWatch() {
    if (pendingFd >= 0) ::close(pendingFd);
  }
  DescriptorWatch(const DescriptorWatch&) = delete;
  DescriptorWatch& operator=(const DescriptorWatch&) = delete;

  std::shared_ptr<const QVRunLoop::Task> callback() {
    std::lock_guard lock(mutex);
    return readable;
  }

  // Owned here until the loop hands it to descriptor.
  int pendingFd;
  std::optional<asio::posix::stream_descriptor> descriptor;
  std::mutex mutex;
  // Guarded by mutex; null once cancelled. Shared so that a call under way
  // keeps its function while another thread cancels.
  std::shared_ptr<const QVRunLoop::Task> readable;
};

}  // namespace

struct QVRunLoop::Impl : std::enable_shared_from_this<Impl> {
  explicit Impl(std::shared_ptr<QVClock> c) : clock(std::move(c)) {}
  ~Impl();

  void submit(Task task);
  void schedule(TimePoint due, Task task);
  void watchClock();
  void releaseDue();
  void arm();
  std::optional<TimePoint> nextWake();
  void startWatch(const std::shared_ptr<DescriptorWatch>& watch);
  void awaitReadable(const std::shared_ptr<DescriptorWatch>& watch);
  void onReadable(const std::shared_ptr<DescriptorWatch>& watch);
  void endWatch(WatchId id);
  // Every handler enters io through here, so a host loop that watches the
  // wakeup descriptor hears of it.
  template <typename Handler>
  void enqueue(Handler&& handler);
  QVLoopWakeup& makeWakeup();
  void wakeupWatches();
  int millisUntilDue() const;

  asio::io_context io{1};
  asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(io);
  asio::steady_timer wakeTimer{io};
  // What wakeTimer waits for; touched only by the pumping thread.
  TimePoint timerSetFor = TimePoint::max();
  std::atomic<size_t> tasksRun{0};

  mutable std::mutex mutex;
  std::shared_ptr<QVClock> clock;         // guarded by mutex
  QVClock::ListenerId listenerId = 0;     // guarded by mutex
  QVTimerQueue delayed;                   // guarded by mutex
  TimePoint armedFor = TimePoint::max();  // guarded by mutex
  WatchId lastWatchId = 0;                // guarded by mutex
  // Guarded by mutex. A watch stays here until the loop has closed its
  // descriptor, so that the destructor can close what is left.
  std::map<WatchId, std::shared_ptr<DescriptorWatch>> watches;
  // Made by the first pollDescriptor() (under mutex), then only read. Never
  // freed: a thread that has just posted may still signal it after the loop
  // is gone, and its descriptor numbers must not be reused meanwhile.
  QVLoopWakeup* wakeupOwner = nullptr;
  std::atomic<QVLoopWakeup*> wakeup{nullptr};
};

template <typename Handler>
void QVRunLoop::Impl::enqueue(Handler&& handler) {
  // Read before posting: once the handler is in, the loop may run it and be
  // destroyed before this thread goes on, so nothing of the loop is touched
  // afterwards, only the wakeup, which outlives it.
  QVLoopWakeup* const w = wakeup.load(std::memory_order_acquire);
  asio::post(io, std::forward<Handler>(handler));
  if (w) w->signal();
}

namespace {

// Every wakeup made, never freed: a thread that posted into a loop may still
// signal its wakeup after the loop is gone. The list keeps them reachable, so
// that a leak checker sees them kept on purpose.
void keepForever(QVLoopWakeup* wakeup) {
  static auto* mutex = new std::mutex;
  static auto* kept = new std::vector<QVLoopWakeup*>;
  std::lock_guard lock(*mutex);
  kept->push_back(wakeup);
}

}  // namespace

QVLoopWakeup& QVRunLoop::Impl::makeWakeup() {
  {
    std::lock_guard lock(mutex);
    if (wakeupOwner) return *wakeupOwner;
    wakeupOwner = new QVLoopWakeup;
    keepForever(wakeupOwner);
    wakeup.store(wakeupOwner, std::memory_order_release);
  }
  // Watches started before there was a wakeup join it on the loop's thread,
  // the only one that touches their descriptors; the signal this sends also
  // covers tasks already waiting.
  enqueue([this] { wakeupWatches(); });
  return *wakeupOwner;
}

void QVRunLoop::Impl::wakeupWatches() {
  std::vector<std::shared_ptr<DescriptorWatch>> all;
  {
    std::lock_guard lock(mutex);
    for (auto& entry : watches) all.push_back(entry.second);
  }
  for (auto& watch : all) {
    if (watch->descriptor) wakeupOwner->add(watch->descriptor->native_handle());
  }
}

int QVRunLoop::Impl::millisUntilDue() const {
  std::lock_guard lock(mutex);
  // A virtual clock moves only when a test says so, and the loop is then
  // signalled: real time brings nothing due.
  const auto earliest = clock->isSteady() ? delayed.earliest() : std::nullopt;
  if (!earliest) return -1;
  const auto left = *earliest - clock->now();
  if (left <= Duration::zero()) return 0;
  const auto millis = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<int64_t>(millis, std::numeric_limits<int>::max()));
}

QVRunLoop::Impl::~Impl() {
  clock->removeListener(listenerId);
  // Descriptors must close while io still exists; the handlers that io
  // destroys afterwards then find nothing left to do.
  for (auto& entry : watches) entry.second->descriptor.reset();
}

void QVRunLoop::Impl::submit(Task task) {
  // Handlers capture the raw pointer: they run or die inside io, which this
  // object owns.
  enqueue([this, task = std::move(task)] {
    tasksRun.fetch_add(1, std::memory_order_relaxed);
    task();
  });
}

void QVRunLoop::Impl::schedule(TimePoint due, Task task) {
  bool dueNow = false;
  bool earlierWake = false;
  {
    std::lock_guard lock(mutex);
    delayed.add(due, std::move(task));
    dueNow = due <= clock->now();
    earlierWake = clock->isSteady() && due < armedFor;
    if (earlierWake) armedFor = due;
  }
  // The OS timer may be touched only by the pumping thread, so both paths go
  // through the loop's own queue.
  if (dueNow) {
    enqueue([this] { releaseDue(); });
  } else if (earlierWake) {
    enqueue([this] { arm(); });
  }
}

void QVRunLoop::Impl::watchClock() {
  // A virtual clock says when it moves; the loop then releases what became
  // due. The weak reference lets the loop die while a move is under way.
  std::weak_ptr<Impl> weak = weak_from_this();
  listenerId = clock->addListener([weak] {
    if (auto self = weak.lock()) self->enqueue([raw = self.get()] { raw->releaseDue(); });
  });
}

void QVRunLoop::Impl::releaseDue() {
  std::vector<Task> due;
  {
    std::lock_guard lock(mutex);
    due = delayed.takeDue(clock->now());
  }
  for (auto& task : due) submit(std::move(task));
  arm();
}

std::optional<QVRunLoop::TimePoint> QVRunLoop::Impl::nextWake() {
  std::lock_guard lock(mutex);
  std::optional<TimePoint> next;
  if (clock->isSteady()) next = delayed.earliest();
  armedFor = next.value_or(TimePoint::max());
  return next;
}

void QVRunLoop::Impl::arm() {
  const TimePoint next = nextWake().value_or(TimePoint::max());
  // Re-arming cancels the pending wait, which wakes the loop once more; doing
  // it only on a change lets runUntilIdle settle.
  if (next == timerSetFor) return;
  timerSetFor = next;
  if (next == TimePoint::max()) {
    wakeTimer.cancel();
    return;
  }
  wakeTimer.expires_at(next);
  wakeTimer.async_wait([this](const std::error_code& error) {
    if (error) return;  // replaced by a newer wait
    timerSetFor = TimePoint::max();
    releaseDue();
  });
}

void QVRunLoop::Impl::startWatch(const std::shared_ptr<DescriptorWatch>& watch) {
  if (!watch->callback()) return;  // cancelled before the loop got to it
  try {
    watch->descriptor.emplace(io, watch->pendingFd);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return;  // the descriptor stays with the watch, which closes it
  }
  watch->pendingFd = -1;
  if (auto* w = wakeup.load(std::memory_order_acquire)) w->add(watch->descriptor->native_handle());
  awaitReadable(watch);
}

void QVRunLoop::Impl::awaitReadable(const std::shared_ptr<DescriptorWatch>& watch) {
  // The handler holds the watch, and dies inside io like any other.
  watch->descriptor->async_wait(asio::posix::stream_descriptor::wait_read,
                                [this, watch](const std::error_code& error) {
                                  if (!error) onReadable(watch);
                                });
}

void QVRunLoop::Impl::onReadable(const std::shared_ptr<DescriptorWatch>& watch) {
  const auto readable = watch->callback();
  if (!readable || !watch->descriptor) return;
  // Waiting again before reading, so that data that comes while readable
  // runs finds a wait to complete and is never left unannounced.
  awaitReadable(watch);
  tasksRun.fetch_add(1, std::memory_order_relaxed);
  (*readable)();
}

void QVRunLoop::Impl::endWatch(WatchId id) {
  std::shared_ptr<DescriptorWatch> watch;
  {
    std::lock_guard lock(mutex);
    auto found = watches.find(id);
    if (found == watches.end()) return;
    watch = std::move(found->second);
    watches.erase(found);
  }
  if (auto* w = wakeup.load(std::memory_order_acquire); w && watch->descriptor) {
    w->remove(watch->descriptor->native_handle());
  }
  watch->descriptor.reset();
}

namespace {

// Marks the calling thread as the pumper of a loop for the span of a pump,
// and readies a stopped loop for the next one.
class PumpScope {
 public:
  PumpScope(QVRunLoop* loop, asio::io_context& io) : previous_(tlsPumping), io_(io) {
    tlsPumping = loop;
  }
  ~PumpScope() {
    tlsPumping = previous_;
    if (io_.stopped()) io_.restart();
  }
  PumpScope(const PumpScope&) = delete;
  PumpScope& operator=(const PumpScope&) = delete;

 private:
  QVRunLoop* previous_;
  asio::io_context& io_;
};

}  // namespace

QVRunLoop::QVRunLoop() : QVRunLoop(nullptr) {}

QVRunLoop::QVRunLoop(std::shared_ptr<QVClock> clock)
    : impl_(std::make_shared<Impl>(clock ? std::move(clock) : QVRealClock::shared())) {
  std::lock_guard lock(impl_->mutex);
  impl_->watchClock();
}

QVRunLoop::~QVRunLoop() = default;

QVRunLoop& QVRunLoop::main() {
  // Never destroyed: tasks and timers may still reach it during exit.
  static auto* loop = new QVRunLoop;
  return *loop;
}

QVRunLoop& QVRunLoop::current() {
  if (tlsPumping) return *tlsPumping;
  if (isMainThread()) return main();
  if (!tlsOwnLoop) tlsOwnLoop = std::make_unique<QVRunLoop>();
  return *tlsOwnLoop;
}

bool QVRunLoop::isCurrent() const {
  if (tlsPumping) return tlsPumping == this;
  if (isMainThread()) return &main() == this;
  return tlsOwnLoop.get() == this;
}

void QVRunLoop::post(Task task) { impl_->submit(std::move(task)); }

void QVRunLoop::postAfter(Duration delay, Task task) {
  postAt(QVTimerQueue::later(clock()->now(), delay), std::move(task));
}

void QVRunLoop::postAt(TimePoint due, Task task) { impl_->schedule(due, std::move(task)); }

QVRunLoop::WatchId QVRunLoop::watchReadable(int fd, Task readable) {
  const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0 || !readable) {
    if (duplicate >= 0) ::close(duplicate);
    return 0;
  }
  auto watch = std::make_shared<DescriptorWatch>(duplicate, std::move(readable));
  WatchId id = 0;
  {
    std::lock_guard lock(impl_->mutex);
    id = ++impl_->lastWatchId;
    impl_->watches.emplace(id, watch);
  }
  impl_->enqueue([impl = impl_.get(), watch] { impl->startWatch(watch); });
  return id;
}

void QVRunLoop::cancelWatch(WatchId id) {
  std::shared_ptr<DescriptorWatch> watch;
  {
    std::lock_guard lock(impl_->mutex);
    auto found = impl_->watches.find(id);
    if (found == impl_->watches.end()) return;
    watch = found->second;
  }
  std::shared_ptr<const Task> readable;
  {
    std::lock_guard lock(watch->mutex);
    readable = std::move(watch->readable);
  }
  // readable dies out here, as what it holds may call back into the loop.
  readable.reset();
  impl_->enqueue([impl = impl_.get(), id] { impl->endWatch(id); });
}

std::shared_ptr<QVClock> QVRunLoop::clock() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->clock;
}

void QVRunLoop::setClock(std::shared_ptr<QVClock> clock) {
  if (!clock) clock = QVRealClock::shared();
  {
    std::lock_guard lock(impl_->mutex);
    impl_->clock->removeListener(impl_->listenerId);
    impl_->delayed.shift(clock->now() - impl_->clock->now());
    impl_->clock = std::move(clock);
    impl_->armedFor = TimePoint::max();
    impl_->watchClock();
  }
  impl_->enqueue([impl = impl_.get()] { impl->releaseDue(); });
}

void QVRunLoop::run() {
  PumpScope scope(this, impl_->io);
  impl_->io.run();
}

void QVRunLoop::stop() {
  QVLoopWakeup* const wakeup = impl_->wakeup.load(std::memory_order_acquire);
  impl_->io.stop();
  if (wakeup) wakeup->signal();
}

int QVRunLoop::pollDescriptor() { return impl_->makeWakeup().descriptor(); }

size_t QVRunLoop::dispatchPending() {
  auto* wakeup = impl_->wakeup.load(std::memory_order_acquire);
  if (!wakeup) return runUntilIdle();
  // Tasks that run post more and signal again. Ending only on a drain that
  // found nothing leaves the descriptor quiet when the loop is, and never
  // loses the signal of work that came in meanwhile.
  wakeup->drain();
  size_t ran = 0;
  do {
    ran += runUntilIdle();
  } while (wakeup->drain());
  return ran;
}

int QVRunLoop::pollTimeoutMillis() const { return impl_->millisUntilDue(); }

size_t QVRunLoop::runFor(Duration limit) {
  const size_t before = impl_->tasksRun.load();
  {
    PumpScope scope(this, impl_->io);
    impl_->io.run_for(limit);
  }
  return impl_->tasksRun.load() - before;
}

size_t QVRunLoop::runUntilIdle() {
  const size_t before = impl_->tasksRun.load();
  {
    PumpScope scope(this, impl_->io);
    // Releasing by hand covers a virtual clock moved before the loop heard,
    // and a real-clock task whose OS timer has not fired yet.
    do {
      impl_->releaseDue();
    } while (impl_->io.poll() > 0);
  }
  return impl_->tasksRun.load() - before;
}

bool QVRunLoop::runUntil(const std::function<bool()>& predicate, Duration timeout) {
  PumpScope scope(this, impl_->io);
  const auto deadline = QVTimerQueue::later(std::chrono::steady_clock::now(), timeout);
  while (!predicate()) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= Duration::zero() || impl_->io.stopped()) return false;
    impl_->io.run_one_for(std::min<Duration>(left, kPredicateRecheck));
  }
  return true;
}

}  // namespace qv
