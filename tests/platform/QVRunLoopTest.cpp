#include "qvcore/platform/QVRunLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "qvcore/platform/QVFakeClock.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

constexpr auto kPatience = 10s;  // bounds real waits: a broken wake-up fails, not hangs

TEST(QVRunLoopTest, CurrentIsMainOnTheMainThreadOrWhilePumpedElseOnePerThread) {
  EXPECT_EQ(&QVRunLoop::current(), &QVRunLoop::main());
  QVRunLoop* inTask = nullptr;
  QVRunLoop::main().post([&] { inTask = &QVRunLoop::current(); });
  std::thread([&] {
    QVRunLoop::main().runUntilIdle();
    QVRunLoop& own = QVRunLoop::current();
    EXPECT_EQ(&own, &QVRunLoop::current());
    EXPECT_TRUE(&own != &QVRunLoop::main() && own.isCurrent() && !QVRunLoop::main().isCurrent());
  }).join();
  EXPECT_EQ(inTask, &QVRunLoop::main());
}

TEST(QVRunLoopTest, RealClockDelayedTaskWakesABlockedPump) {
  QVRunLoop loop;
  std::string ran;
  loop.postAfter(1h, [&] { ran += "far"; });
  // Nothing is due: the pump must come back, not spin on the timer it arms.
  EXPECT_EQ(loop.runUntilIdle(), 0u);
  // A nearer task from another thread must re-arm a pump asleep until 1 h.
  std::thread poster([&] { loop.postAfter(5ms, [&] { ran += "near", loop.stop(); }); });
  loop.runFor(kPatience);
  poster.join();
  EXPECT_EQ(ran, "near");
}

// Tasks run once due, in due order; a due time beyond the clock saturates
// into never, across changes of clock; the clock's move from another thread
// wakes a blocked pump.
TEST(QVRunLoopTest, VirtualTimeRunsDelayedTasksInDueOrderAndWakesABlockedPump) {
  auto clock = std::make_shared<QVFakeClock>();
  QVRunLoop loop(clock);
  std::string ran;
  for (auto [due, name] : {std::pair{30s, "30s "}, {10s, "10s-a "}, {10s, "10s-b "}, {0s, "now "}})
    loop.postAfter(due, [&ran, name] { ran += name; });
  const auto after = [&](QVClock::Duration step) {
    clock->advance(step);
    loop.runUntilIdle();
    return ran;
  };
  EXPECT_EQ(after(0s), "now ");
  EXPECT_EQ(after(10s - 1ns), "now ");
  EXPECT_EQ(after(1ns), "now 10s-a 10s-b ");
  EXPECT_EQ(after(1h), "now 10s-a 10s-b 30s ");

  // The due time saturates on the way to a clock that is ahead, not back.
  loop.postAfter(QVRunLoop::Duration::max(), [&] { ran += "never"; });
  constexpr auto kCentury = std::chrono::hours(24 * 365 * 100);
  loop.setClock(std::make_shared<QVFakeClock>(clock->now() + 2 * kCentury));
  loop.setClock(clock);
  EXPECT_EQ(after(kCentury), "now 10s-a 10s-b 30s ");

  std::atomic<bool> woke = false;
  loop.postAfter(5s, [&] { woke = true; });
  std::thread mover([&] { clock->advance(5s); });  // runUntil alone releases nothing
  EXPECT_TRUE(loop.runUntil([&] { return woke.load(); }, kPatience));
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

// A watch runs on the pumping thread for data old and new until cancelled,
// from its own call, another thread or the loop's destructor; the loop closes
// the descriptors it duplicated.
TEST(QVRunLoopWatchTest, WatchesRunOnThePumpingThreadUntilCancelled) {
  const auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Pipe pipe;
  pipe.write("early");
  const auto before = openDescriptors();
  std::string read;
  int calls = 0;
  {
    QVRunLoop loop;
    std::thread::id ranOn;
    QVRunLoop::WatchId id = loop.watchReadable(pipe.fds[0], [&] {
      read += pipe.drain();
      ranOn = std::this_thread::get_id();
      if (read == "earlylate") loop.cancelWatch(id);  // as a listener that is done would
    });
    ASSERT_NE(id, 0u);
    EXPECT_EQ(loop.watchReadable(-1, [] {}), 0u);
    std::thread([&] {
      EXPECT_TRUE(loop.runUntil([&] { return read == "early"; }, kPatience));
      pipe.write("late");
      EXPECT_TRUE(loop.runUntil([&] { return read == "earlylate"; }, kPatience));
      EXPECT_EQ(ranOn, std::this_thread::get_id());
    }).join();
    const auto other = loop.watchReadable(pipe.fds[0], [&] { calls += 1; });
    loop.runUntilIdle();
    std::thread([&] { loop.cancelWatch(other); }).join();
    pipe.write("y");
    loop.runUntilIdle();
    EXPECT_EQ(pipe.drain(), "y");
    loop.watchReadable(pipe.fds[0], [&] { calls += 10; });
    loop.runUntilIdle();
    loop.cancelWatch(loop.watchReadable(pipe.fds[0], [&] { calls += 100; }));
  }
  EXPECT_EQ(read, "earlylate");
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(openDescriptors(), before);
}

// A host's own loop (poll here; GLib and the others alike) drives the loop
// through its descriptor, its time-out and dispatchPending.
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

  loop.postAfter(20ms, [&] { loop.post([&] { ++ran; }); });
  const int timeout = loop.pollTimeoutMillis();
  EXPECT_TRUE(timeout >= 0 && timeout <= 20) << timeout;
  for (int turns = 0; ran < 2 && turns < 1000; ++turns) {
    pollfd entry{fd, POLLIN, 0};
    ::poll(&entry, 1, loop.pollTimeoutMillis());
    loop.dispatchPending();
  }
  EXPECT_EQ(ran, 2) << "the timer and the task it posted ran within the turns";
  EXPECT_EQ(loop.pollTimeoutMillis(), -1);

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
}

}  // namespace
}  // namespace qv
