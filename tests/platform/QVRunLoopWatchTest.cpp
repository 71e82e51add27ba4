#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "qvcore/platform/QVRunLoop.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  void write(const std::string& bytes) {
    EXPECT_GT(::write(fds[1], bytes.data(), bytes.size()), 0);
  }
  std::string drain() {
    std::string all;
    char buffer[64];
    for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) > 0;) all.append(buffer, got);
    return all;
  }
  int fds[2] = {-1, -1};
};

size_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(QVRunLoopWatchTest, ReadableRunsOnThePumpingThreadForDataOldAndNew) {
  QVRunLoop loop;
  Pipe pipe;
  pipe.write("early");
  std::string read;
  std::thread::id ranOn;
  const auto id = loop.watchReadable(pipe.fds[0], [&] {
    read += pipe.drain();
    ranOn = std::this_thread::get_id();
  });
  ASSERT_NE(id, 0u);
  std::thread([&] {
    EXPECT_TRUE(loop.runUntil([&] { return read == "early"; }, 10s));
    pipe.write("late");
    EXPECT_TRUE(loop.runUntil([&] { return read == "earlylate"; }, 10s));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
  }).join();
  loop.cancelWatch(id);
  EXPECT_EQ(loop.watchReadable(-1, [] {}), 0u);
}

TEST(QVRunLoopWatchTest, CancelledWatchesStayQuietAndTheLoopClosesWhatItDuplicated) {
  Pipe pipe;
  const size_t before = openDescriptors();
  int calls = 0;
  {
    QVRunLoop loop;
    // Cancelled from inside its own call, as a listener that is done would.
    QVRunLoop::WatchId id = loop.watchReadable(pipe.fds[0], [&] {
      ++calls;
      pipe.drain();
      loop.cancelWatch(id);
    });
    pipe.write("x");
    loop.runUntilIdle();
    // Cancelled from another thread.
    const auto other = loop.watchReadable(pipe.fds[0], [&] { calls += 10; });
    loop.runUntilIdle();
    std::thread([&] { loop.cancelWatch(other); }).join();
    pipe.write("y");
    loop.runUntilIdle();
    pipe.drain();
    // Left to the loop's destructor: one live, one cancelled before any pump.
    loop.watchReadable(pipe.fds[0], [&] { calls += 100; });
    loop.runUntilIdle();
    loop.cancelWatch(loop.watchReadable(pipe.fds[0], [&] { calls += 100; }));
  }
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace qv
