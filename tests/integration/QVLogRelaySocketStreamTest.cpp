// The socket streams that the log relay writes through, against a real TCP
// peer on the loopback address.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/net/QVSocketConnection.h"
#include "platform/net/QVSocketInputStream.h"
#include "platform/net/QVSocketOutputStream.h"
#include "qvcore/logrelay/VintraZANLogClient.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVStreamDelegate.h"
#include "qvcore/platform/QVStreamException.h"
#include "support/QVFakeServiceDiscovery.h"
#include "support/QVLoopback.h"

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using Event = qv::QVByteStream::Event;

namespace qv {
namespace {

class EventLog : public QVStreamDelegate {
 public:
  void streamHandleEvent(const std::shared_ptr<QVByteStream>& stream, Event event) override {
    events.emplace_back(stream.get(), event);
  }
  bool saw(const std::shared_ptr<QVByteStream>& stream, Event event) const {
    return std::count(events.begin(), events.end(), std::make_pair(stream.get(), event)) > 0;
  }
  std::vector<std::pair<QVByteStream*, Event>> events;
};

// A listener on 127.0.0.1; a small receive window, when given, makes a peer
// that stops reading fill the connection soon.
struct Peer {
  explicit Peer(int window = 0) : listener(test::bindLoopback(port, true, window)) {}
  ~Peer() {
    ::close(fd);
    ::close(listener);
  }
  bool accept() {
    pollfd entry{listener, POLLIN, 0};
    return ::poll(&entry, 1, 5000) == 1 && (fd = ::accept(listener, nullptr, nullptr)) >= 0;
  }
  // True once the other side has ended the connection.
  bool seesEnd() {
    pollfd entry{fd, POLLIN, 0};
    char byte;
    return ::poll(&entry, 1, 10000) == 1 && ::recv(fd, &byte, 1, 0) == 0;
  }
  int port = 0;
  int listener;
  int fd = -1;
};

ptrdiff_t write(QVOutputStream& stream, const std::string& text) {
  return stream.write(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

class QVLogRelaySocketStreamTest : public ::testing::Test {
 protected:
  void open(const Peer& peer) {
    std::tie(input_, output_) =
        QVSocketConnection::makeStreams(test::ipv4Address(127, 0, 0, 1, peer.port));
    for (std::shared_ptr<QVByteStream> stream :
         {std::shared_ptr<QVByteStream>(input_), std::shared_ptr<QVByteStream>(output_)}) {
      stream->setDelegate(log_);
      stream->open();
      stream->scheduleInRunLoop(loop_);
    }
  }
  bool await(const std::shared_ptr<QVByteStream>& stream, Event event) {
    return loop_.runUntil([&] { return log_->saw(stream, event); }, 5s);
  }

  QVRunLoop loop_;
  std::shared_ptr<EventLog> log_ = std::make_shared<EventLog>();
  std::shared_ptr<QVSocketInputStream> input_;
  std::shared_ptr<QVSocketOutputStream> output_;
};

TEST_F(QVLogRelaySocketStreamTest, WritesReachThePeerAndItsCloseIsHeard) {
  Peer peer;
  open(peer);
  // Written before the connect is known to be done: the write waits for it.
  EXPECT_EQ(write(*output_, "hello, "), 7);
  ASSERT_TRUE(peer.accept());
  EXPECT_TRUE(await(output_, QVByteStream::kEventOpenCompleted));
  EXPECT_TRUE(await(output_, QVByteStream::kEventHasSpaceAvailable));
  EXPECT_TRUE(await(input_, QVByteStream::kEventOpenCompleted));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusOpen);
  EXPECT_EQ(write(*output_, "tool"), 4);
  EXPECT_EQ(test::receiveUntil(peer.fd, "hello, tool"), "hello, tool");

  test::sendAll(peer.fd, "ack");
  ASSERT_TRUE(await(input_, QVByteStream::kEventHasBytesAvailable));
  uint8_t buffer[8] = {};
  ASSERT_EQ(input_->read(buffer, sizeof buffer), 3);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 3), "ack");

  ::close(std::exchange(peer.fd, -1));
  ASSERT_TRUE(await(input_, QVByteStream::kEventEndEncountered));
  EXPECT_EQ(input_->streamStatus(), QVByteStream::kStatusAtEnd);
  // The peer's reset comes back after the first write into the closed
  // connection; from then on writes raise instead of looping.
  const auto raises = [&] {
    try {
      write(*output_, "more");
    } catch (const QVStreamException&) {
      return true;
    }
    return false;
  };
  EXPECT_TRUE(loop_.runUntil(raises, 5s));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusError);
}

TEST_F(QVLogRelaySocketStreamTest, ARefusedConnectionIsAnErrorAndWritesRaise) {
  Peer peer;
  ::close(std::exchange(peer.listener, -1));
  open(peer);
  EXPECT_TRUE(await(output_, QVByteStream::kEventErrorOccurred));
  EXPECT_TRUE(await(input_, QVByteStream::kEventErrorOccurred));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusError);
  EXPECT_THAT(output_->streamError(), HasSubstr("refused"));
  EXPECT_THROW(write(*output_, "lost"), QVStreamException);
  EXPECT_FALSE(log_->saw(output_, QVByteStream::kEventOpenCompleted));
}

TEST_F(QVLogRelaySocketStreamTest, AClosedStreamSaysNothingMoreAndTakesNothing) {
  Peer peer;
  open(peer);
  ASSERT_TRUE(peer.accept());
  output_->close();
  input_->close();
  test::sendAll(peer.fd, "unheard");
  EXPECT_TRUE(peer.seesEnd()) << "closing both streams ends the connection";
  // The bytes and the end are there to be seen by any watch still open.
  loop_.runUntilIdle();
  EXPECT_TRUE(log_->events.empty()) << "events of closed streams are dropped";
  EXPECT_THROW(write(*output_, "x"), QVStreamException);
}

// The relay itself in front of a tool that stops reading: its writes never
// hold up the main loop; texts that find the buffer full are dropped, and the
// next text that gets through says how many.
TEST_F(QVLogRelaySocketStreamTest, ARelayWhoseToolStopsReadingDropsAndCountsInsteadOfWaiting) {
  QVServiceDiscovery::setShared(std::make_shared<test::QVFakeServiceDiscovery>());
  std::vector<std::string> logged;
  QVLog::setSink([&](const std::string& line) { logged.push_back(line); });
  auto client = VintraZANLogClient::onlyVintraZANLogClient();
  Peer peer(4096);
  open(peer);
  output_->setDelegate(client);
  client->setTheOutStream(output_);
  output_->scheduleInRunLoop(QVRunLoop::main());
  ASSERT_TRUE(peer.accept());

  constexpr int kTexts = 120;
  const std::string filler(64 * 1024, '.');
  for (int n = 0; n < kTexts; ++n) {
    client->post("text " + std::to_string(n) + filler + "\n");
    QVRunLoop::main().runUntilIdle();
  }
  std::string received;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    received = test::receiveUntil(peer.fd, "last\n");
    done = true;
  });
  // The peer reads again: what waited goes out, then one more text, which
  // brings the count (it fits beside what waits: texts are taken whole).
  client->post("last\n");
  EXPECT_TRUE(QVRunLoop::main().runUntil([&] { return done.load(); }, 30s));
  reader.join();
  QVLog::setSink(nullptr);

  EXPECT_THAT(logged, Not(Contains(HasSubstr("Caught")))) << "no write waited and gave up";
  int arrived = 0, dropped = 0;
  static const std::regex note(R"(\((\d+) log lines dropped\)\n)");
  for (std::sregex_iterator it(received.begin(), received.end(), note), end; it != end; ++it) {
    dropped += std::stoi((*it)[1]);
  }
  for (size_t at = 0; (at = received.find(filler + "\n", at)) != std::string::npos; ++at) ++arrived;
  EXPECT_GT(dropped, 0);
  EXPECT_EQ(arrived + dropped, kTexts) << "every text either arrived whole or was counted";
  EXPECT_THAT(received, ::testing::EndsWith("last\n"));
}

}  // namespace
}  // namespace qv
