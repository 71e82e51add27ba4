// qvcore-logtool's server and printer on a run loop of the test's own, with
// peers on real sockets to 127.0.0.1: what a hostile peer can make of the
// terminal, of the listener's descriptors and of connections left open.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "QVLogToolPrinter.h"
#include "QVLogToolServer.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVLoopback.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

class QVLogToolTest : public ::testing::Test {
 protected:
  void start(std::chrono::milliseconds idleTimeout) {
    server_ = std::make_unique<QVLogToolServer>(loop_, printer_, idleTimeout);
    std::string error;
    port_ = server_->listen(0, error);
    ASSERT_GT(port_, 0) << error;
  }
  // A peer on 127.0.0.1, or -1 when the connection fails.
  int connectPeer() const { return test::connectLoopback(port_); }
  static std::string peerOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  std::string printed() {
    std::fflush(out_);
    return std::string(buffer_, size_);
  }
  bool waitForText(const std::string& text) {
    return loop_.runUntil([&] { return printed().find(text) != std::string::npos; }, 10s);
  }

  char* buffer_ = nullptr;
  size_t size_ = 0;
  std::FILE* out_ = ::open_memstream(&buffer_, &size_);
  QVRunLoop loop_;
  QVLogToolPrinter printer_{out_};
  std::unique_ptr<QVLogToolServer> server_;
  uint16_t port_ = 0;

  ~QVLogToolTest() override {
    server_.reset();
    std::fclose(out_);
    std::free(buffer_);
  }
};

TEST_F(QVLogToolTest, PeersCannotDriveTheTerminalNorPassForAnotherPeer) {
  start(60s);
  const int app = connectPeer(), forger = connectPeer();
  ASSERT_TRUE(test::sendAll(app, "ZAN_SDK_START_NEW_RUN_FOR_APP Demo 12:00\n"));
  ASSERT_TRUE(waitForText("Demo 12:00\n"));
  const std::string forged =
      "==================== new run, from 10.0.0.9:4000 ====================\n"
      "title\x1b]0;owned\x07 clear\x1b[2J csi\xc2\x9b"
      "1m tab\tend \xc3";
  ASSERT_TRUE(test::sendAll(forger, forged));
  ASSERT_TRUE(waitForText("end "));
  ASSERT_TRUE(test::sendAll(forger, "\xa9\n"));  // the rest of the "é" cut in two
  ASSERT_TRUE(waitForText("\xc3\xa9\n"));

  EXPECT_EQ(printed(),
            "==================== new run, from " + peerOf(app) +
                " ====================\n"
                "ZAN_SDK_START_NEW_RUN_FOR_APP Demo 12:00\n"
                "[from " +
                peerOf(forger) +
                "] ==================== new run, from 10.0.0.9:4000 ====================\n"
                "title\\x1b]0;owned\\x07 clear\\x1b[2J csi\\xc2\\x9b1m tab\tend \xc3\xa9\n");
  ::close(app);
  ::close(forger);
}

TEST_F(QVLogToolTest, SilentConnectionsAreClosedAfterTheIdleTimeOut) {
  start(300ms);
  const int peer = connectPeer();
  ASSERT_TRUE(test::sendAll(peer, "hello\n"));
  ASSERT_TRUE(waitForText("hello\n"));
  char byte;
  EXPECT_TRUE(loop_.runUntil([&] { return ::recv(peer, &byte, 1, MSG_DONTWAIT) == 0; }, 10s));
  ::close(peer);
}

TEST_F(QVLogToolTest, OutOfDescriptorsTheListenerRestsAndAcceptsAgainLater) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer build adds UBSan, whose type check opens a pipe to probe
  // memory: with every descriptor taken it reports a valid object as one
  // with an invalid vptr. The default and ThreadSanitizer builds run this.
  GTEST_SKIP() << "needs descriptors the sanitizer runtime takes for itself";
#endif
  start(60s);
  // The descriptors of both ends are this process's.
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit saved = limit;
  const int probe = ::dup(0);
  ::close(probe);
  // Peers (fewer than the listener's backlog) take every descriptor left.
  limit.rlim_cur = static_cast<rlim_t>(probe + 12);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> peers;
  for (int fd; peers.size() < 14 && (fd = connectPeer()) >= 0;) peers.push_back(fd);
  ASSERT_GE(peers.size(), 3u);
  ASSERT_LT(peers.size(), 14u);
  // A queued connection that cannot be accepted leaves the listener readable;
  // called again each time, the loop would run thousands of tasks here.
  EXPECT_LT(loop_.runFor(500ms), 50u);
  for (size_t i = 0; i + 1 < peers.size(); ++i) ::close(peers[i]);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_TRUE(test::sendAll(peers.back(), "late\n"));
  EXPECT_TRUE(waitForText("late\n"));
  ::close(peers.back());
}

}  // namespace
}  // namespace qv
