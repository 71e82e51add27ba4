// How work and news travel: the run loop (virtual and real time, host loops,
// descriptor watches), the timers and serial queues built on it,
// notifications to observers and lines to the log.
#include "qvcore/platform/QVRunLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <future>
#include <thread>

#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRepeatingTimer.h"
#include "qvcore/platform/QVSerialQueue.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

// A loop of its own on a fake clock.
struct VirtualLoop {
  void advance(QVClock::Duration step) {
    clock->advance(step);
    loop.runUntilIdle();
  }
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  QVRunLoop loop{clock};
};

TEST(QVRunLoopTest, CurrentIsMainOnTheMainThreadOrWhilePumpedElseOnePerThread) {
  EXPECT_EQ(&QVRunLoop::current(), &QVRunLoop::main());
  QVRunLoop* inTask = nullptr;
  QVRunLoop::main().post([&] { inTask = &QVRunLoop::current(); });
  std::thread([&] {
    QVRunLoop::main().runUntilIdle();
    QVRunLoop& own = QVRunLoop::current();
    EXPECT_TRUE(&own == &QVRunLoop::current() && &own != &QVRunLoop::main() && own.isCurrent() &&
                !QVRunLoop::main().isCurrent());
  }).join();
  EXPECT_EQ(inTask, &QVRunLoop::main());
}

// Tasks run once due, in due order; a due time beyond the clock saturates
// into never, across changes of clock; the clock's move from another thread
// wakes a blocked pump.
TEST(QVRunLoopTest, VirtualTimeRunsDelayedTasksInDueOrderAndWakesABlockedPump) {
  VirtualLoop v;
  std::string ran;
  for (auto [due, name] : {std::pair{30s, "30s "}, {10s, "10s-a "}, {10s, "10s-b "}, {0s, "now "}})
    v.loop.postAfter(due, [&ran, name] { ran += name; });
  const auto after = [&](QVClock::Duration step) {
    v.advance(step);
    return ran;
  };
  EXPECT_EQ(after(0s), "now ");
  EXPECT_EQ(after(10s - 1ns), "now ");
  EXPECT_EQ(after(1ns), "now 10s-a 10s-b ");
  EXPECT_EQ(after(1h), "now 10s-a 10s-b 30s ");

  // The due time saturates on the way to a clock that is ahead, not back.
  v.loop.postAfter(QVRunLoop::Duration::max(), [&] { ran += "never"; });
  constexpr auto kCentury = std::chrono::hours(24 * 365 * 100);
  v.loop.setClock(std::make_shared<QVFakeClock>(v.clock->now() + 2 * kCentury));
  v.loop.setClock(v.clock);
  EXPECT_EQ(after(kCentury), "now 10s-a 10s-b 30s ");

  std::atomic<bool> woke = false;
  v.loop.postAfter(5s, [&] { woke = true; });
  std::thread mover([&] { v.clock->advance(5s); });  // runUntil alone releases nothing
  EXPECT_TRUE(v.loop.runUntil([&] { return woke.load(); }, 10s));
  mover.join();
}

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() { std::for_each(fds, fds + 2, ::close); }
  void write(const std::string& s) { EXPECT_GT(::write(fds[1], s.data(), s.size()), 0); }
  std::string drain() {
    char buffer[64];
    const ssize_t got = ::read(fds[0], buffer, sizeof buffer);
    return std::string(buffer, std::max<ssize_t>(got, 0));
  }
  int fds[2] = {-1, -1};
};

// Whether a host loop polling fd would wake now.
bool readable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 0) == 1;
}

// A watch runs until cancelled, from its own call, another thread or the
// loop's destructor; the loop closes the descriptors it duplicated. Data
// reaching a watch on a pump blocked in another thread is what the log
// tool's server and the socket streams live on: their tests hold it.
TEST(QVRunLoopWatchTest, WatchesRunOnThePumpingThreadUntilCancelled) {
  const auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Pipe pipe;
  const auto before = openDescriptors();
  std::string read;
  int calls = 0;
  {
    QVRunLoop loop;
    EXPECT_EQ(loop.watchReadable(-1, [] {}), 0u);
    QVRunLoop::WatchId id = loop.watchReadable(pipe.fds[0], [&] {
      read += pipe.drain();
      loop.cancelWatch(id);  // as a listener that is done would
    });
    pipe.write("once");
    loop.runUntilIdle();
    const auto other = loop.watchReadable(pipe.fds[0], [&] { calls += 1; });
    std::thread([&] { loop.cancelWatch(other); }).join();
    pipe.write("y");
    loop.runUntilIdle();
    EXPECT_EQ(pipe.drain(), "y");
    loop.watchReadable(pipe.fds[0], [&] { calls += 10; });
    loop.cancelWatch(loop.watchReadable(pipe.fds[0], [&] { calls += 100; }));
  }
  EXPECT_EQ(read, "once");
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(openDescriptors(), before);
}

// A host's own loop (poll here; GLib and the others alike) drives the loop
// through its descriptor, its time-out and dispatchPending. That the host
// wakes for a timer at that time-out is held by the GLib host's test.
TEST(QVRunLoopWatchTest, AHostLoopPollingTheDescriptorRunsTasksTimersAndWatches) {
  QVRunLoop loop;
  const int fd = loop.pollDescriptor();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(loop.pollDescriptor(), fd);
  // Whether the host wakes, after dispatching what is pending.
  const auto wakesAfterDispatch = [&] {
    const bool wakes = readable(fd);
    loop.dispatchPending();
    return wakes;
  };
  loop.dispatchPending();
  EXPECT_FALSE(readable(fd)) << "an idle loop leaves the host asleep";
  EXPECT_EQ(loop.pollTimeoutMillis(), -1);

  int ran = 0;
  std::thread([&] { loop.post([&] { ++ran; }); }).join();
  EXPECT_TRUE(wakesAfterDispatch()) << "a task posted from another thread wakes the host";
  EXPECT_EQ(ran, 1);
  EXPECT_FALSE(readable(fd));

  Pipe pipe;
  std::string read;
  const auto id = loop.watchReadable(pipe.fds[0], [&] { read += pipe.drain(); });
  loop.dispatchPending();
  EXPECT_FALSE(readable(fd));
  pipe.write("data");
  EXPECT_TRUE(wakesAfterDispatch()) << "a watched descriptor with data wakes the host";
  EXPECT_EQ(read, "data");
  EXPECT_FALSE(readable(fd));
  loop.cancelWatch(id);
  loop.dispatchPending();
  pipe.write("unwatched");
  EXPECT_FALSE(readable(fd));
  loop.postAfter(20ms, [] {});
  EXPECT_TRUE(loop.pollTimeoutMillis() >= 0 && loop.pollTimeoutMillis() <= 20);
}

// The fires due at 180, 210 and 240 s collapse into one; 270 s is on the
// grid. The loop holds a valid timer, so one its owner dropped fires until it
// invalidates itself. Tiny, zero, negative and NaN intervals become a tenth
// of a millisecond.
TEST(QVRepeatingTimerTest, FiresOnTheGridUntilInvalidatedEvenWhenDropped) {
  VirtualLoop v;
  int fired = 0;
  auto timer = QVRepeatingTimer::scheduledTimer(v.loop, 30.0, [&] { ++fired; });
  std::string counts;  // after each step
  const QVClock::Duration steps[] = {30s - 1ns, 1ns, 30s, 30s, 30s, 30s, 105s, 14s, 1s};
  for (auto step : steps) {
    v.advance(step);
    counts += std::to_string(fired) + " ";
  }
  EXPECT_EQ(counts, "0 1 2 3 4 5 6 6 7 ");
  timer->invalidate();
  v.advance(300s);
  EXPECT_FALSE(timer->isValid());
  EXPECT_EQ(fired, 7);

  auto payload = std::make_shared<int>(0);
  std::weak_ptr<QVRepeatingTimer> weak;
  weak = QVRepeatingTimer::scheduledTimer(v.loop, 1.0, [payload, &weak] {
    if (++*payload == 3) weak.lock()->invalidate();
  });
  for (int i = 0; i < 5; ++i) v.advance(1s);
  EXPECT_EQ(*payload, 3);
  EXPECT_EQ(payload.use_count(), 1);  // the callback was released
  EXPECT_TRUE(weak.expired());        // and the timer, by its last task

  for (double seconds : {1e-9, 0.0, -5.0, std::nan("")}) {
    auto tiny = QVRepeatingTimer::scheduledTimer(v.loop, seconds, [&] { ++fired; });
    EXPECT_DOUBLE_EQ(tiny->interval(), 0.0001) << seconds;
  }
  v.advance(100us);  // all four fire, and none more than once
  EXPECT_EQ(fired, 11);
}

TEST(QVSerialQueueTest, TasksFromSeveralProducersRunInOrderAndFinishBeforeDestruction) {
  constexpr int kProducers = 4, kTasks = 300;
  std::vector<std::vector<int>> seen(kProducers);  // the worker's until the queue is gone
  {
    QVSerialQueue queue("test.order");
    // Holds the worker until every task is queued, so the destructor meets a
    // full queue.
    std::promise<void> queued;
    queue.async([all = queued.get_future().share()] { all.wait(); });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        for (int i = 0; i < kTasks; ++i) queue.async([&, p, i] { seen[p].push_back(i); });
      });
    }
    for (auto& producer : producers) producer.join();
    queued.set_value();
  }
  for (const auto& fromProducer : seen) {
    ASSERT_EQ(fromProducer.size(), static_cast<size_t>(kTasks));
    for (int i = 0; i < kTasks; ++i) EXPECT_EQ(fromProducer[i], i);
  }
}

TEST(QVSerialQueueTest, SyncRunsOnTheWorkerInlineWhenNestedAndRethrows) {
  QVSerialQueue queue("test.sync");
  std::thread::id worker;
  bool current = false, nestedRan = false;
  queue.sync([&] {
    worker = std::this_thread::get_id();
    current = queue.isCurrent() && &QVRunLoop::current() == &queue.runLoop();
    queue.sync([&] { nestedRan = true; });  // would wait for itself if queued
  });
  EXPECT_NE(worker, std::this_thread::get_id());
  EXPECT_TRUE(current);
  EXPECT_TRUE(nestedRan);
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("failed"); }), std::runtime_error);
}

// The destructor then runs on the worker, which must neither wait for itself
// nor leave the later tasks or its loop behind.
TEST(QVSerialQueueTest, DroppingTheLastReferenceOnItsOwnThreadDoesNotDeadlock) {
  auto queue = std::make_shared<QVSerialQueue>("test.self");
  auto laterRan = std::make_shared<std::promise<void>>();
  auto loopGone = std::make_shared<std::promise<void>>();
  // Dropped, with the worker's loop, once the detached worker ends.
  std::shared_ptr<void> signal(nullptr, [loopGone](void*) { loopGone->set_value(); });
  queue->runLoop().postAfter(1h, [signal = std::move(signal)] {});
  std::promise<void> mainDropped;
  queue->async([q = queue, dropped = mainDropped.get_future().share()]() mutable {
    dropped.wait();
    q.reset();  // the last reference
  });
  queue->async([laterRan] { laterRan->set_value(); });
  queue.reset();
  mainDropped.set_value();
  EXPECT_EQ(laterRan->get_future().wait_for(10s), std::future_status::ready);
  EXPECT_EQ(loopGone->get_future().wait_for(10s), std::future_status::ready);
}

class QVNotificationCenterTest : public ::testing::Test {
 protected:
  // Records a delivery as "tag:name ".
  QVNotificationCenter::Callback record(std::string tag) {
    return [this, tag](const QVNotification& n) { seen += tag + ":" + n.name + " "; };
  }
  std::string take() { return std::exchange(seen, ""); }

  QVNotificationCenter center;
  std::string seen;
};

TEST_F(QVNotificationCenterTest, FiltersAndRemovesByNameAndSender) {
  int a = 0, b = 0, any = 0, named = 0, multi = 0;
  center.addObserver(&any, "", nullptr, record("any"));
  center.addObserver(&named, "N", nullptr, record("named"));
  center.addObserver(&multi, "N", &a, record("NA"));
  center.addObserver(&multi, "", &b, record("fromB"));
  center.addObserver(&multi, "M", nullptr, record("M1"));
  center.addObserver(&multi, "M", nullptr, record("M2"));
  center.post("N", &a);
  EXPECT_EQ(take(), "any:N named:N NA:N ");
  center.post("M", &b);
  EXPECT_EQ(take(), "any:M fromB:M M1:M M2:M ");

  center.removeObserver(&multi, "M", nullptr);
  center.removeObserver(&multi, "N", &b);  // selects nothing
  EXPECT_EQ(center.observationCount(&multi), 2u);
  center.post("M", &b);
  EXPECT_EQ(take(), "any:M fromB:M ");
  center.removeObserver(&multi);
  center.post("N", &a);
  EXPECT_EQ(take(), "any:N named:N ");
}

TEST_F(QVNotificationCenterTest, CallbacksMayRemoveAddAndPost) {
  int self = 0, victim = 0, late = 0;
  center.addObserver(&self, "N", nullptr, [&, recordSelf = record("self")](const auto& n) {
    recordSelf(n);
    center.removeObserver(&self);    // its own thread: must not wait for itself
    center.removeObserver(&victim);  // not yet called in this post: must not be
    center.addObserver(&late, "inner", nullptr, record("late"));
    center.post("inner");
  });
  center.addObserver(&victim, "N", nullptr, record("victim"));
  center.post("N");
  center.post("N");
  EXPECT_EQ(take(), "self:N late:inner ");
}

// Observers die right after removing themselves while two threads post: a
// call that outlived the removal would read freed memory (ASan) or see the
// flag set after removal.
TEST_F(QVNotificationCenterTest, ObserversDieSafelyWhileOtherThreadsPost) {
  struct Mortal {
    std::atomic<bool> removed = false;
    std::atomic<int> calls = 0;
  };
  std::atomic<bool> churning = true;
  std::atomic<int> callsAfterRemoval = 0;
  const auto post = [&] {
    while (churning) center.post("tick");
  };
  std::thread posters[] = {std::thread(post), std::thread(post)};
  for (int i = 0; i < 1000; ++i) {
    auto mortal = std::make_unique<Mortal>();
    Mortal* raw = mortal.get();
    center.addObserver(raw, i % 2 ? "tick" : "", nullptr, [raw, &callsAfterRemoval](auto&) {
      ++raw->calls;
      std::this_thread::yield();  // widens the window for a removal to overlap
      if (raw->removed) ++callsAfterRemoval;
    });
    // Removing once calls flow makes a call under way likely.
    for (int spin = 0; spin < 10000 && raw->calls == 0; ++spin) std::this_thread::yield();
    center.removeObserver(raw);
    raw->removed = true;
  }
  churning = false;
  for (auto& poster : posters) poster.join();
  EXPECT_EQ(callsAfterRemoval, 0);
}

// An exception the framework catches (a value JSON cannot carry makes the
// message's text fail) is written as a debug line only when asked for.
TEST(QVLogTest, SwallowedExceptionsShowAsDebugLinesOnlyWhenAsked) {
  std::vector<std::string> lines;
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  const QVValue unwritable{{"ratio", std::nan("")}};
  EXPECT_FALSE(QVLog::isDebugEnabled()) << "off unless QVCORE_DEBUG=1";
  EXPECT_EQ(QVCoreExtensions::toJson(unwritable), "");
  EXPECT_TRUE(lines.empty());
  QVLog::setDebugEnabled(true);
  EXPECT_EQ(QVCoreExtensions::toJson(unwritable), "");
  QVLog::setSink(nullptr);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("QVCore debug: toJson: ", 0), 0u) << lines[0];
}

// Without a sink each line is one write to standard error, a newline added
// where it lacks one.
TEST(QVLogTest, WithoutASinkLinesGoToStandardErrorEachEndingInANewline) {
  testing::internal::CaptureStderr();
  QVLog::logFormat("Background Time:%f", 2.5);
  QVLog::log("ends\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Background Time:2.500000\nends\n");
}

}  // namespace
}  // namespace qv
