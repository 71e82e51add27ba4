// The socket streams that the log relay writes through, against a real TCP
// peer on the loopback address.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>

#include <atomic>
#include <cstring>
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
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;

namespace qv {
namespace {

class EventLog : public QVStreamDelegate {
 public:
  void streamHandleEvent(const std::shared_ptr<QVByteStream>& stream,
                         QVByteStream::Event event) override {
    events.emplace_back(stream.get(), event);
  }
  bool saw(const std::shared_ptr<QVByteStream>& stream, QVByteStream::Event event) const {
    for (const auto& [who, what] : events) {
      if (who == stream.get() && what == event) return true;
    }
    return false;
  }
  std::vector<std::pair<QVByteStream*, QVByteStream::Event>> events;
};

// A listening socket on 127.0.0.1 and a port the system picked; a small
// receive window, when given, makes a peer that stops reading fill the
// connection soon.
class Peer {
 public:
  explicit Peer(int receiveBuffer = 0) {
    listener_ = test::bindLoopback(port_, true, receiveBuffer);
  }
  ~Peer() {
    if (accepted_ >= 0) ::close(accepted_);
    if (listener_ >= 0) ::close(listener_);
  }
  std::vector<uint8_t> address() const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&address);
    return {bytes, bytes + sizeof address};
  }
  // Closing the listener leaves an address that refuses connections.
  void stopListening() { ::close(std::exchange(listener_, -1)); }
  bool accept() {
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, 5000) != 1) return false;
    accepted_ = ::accept(listener_, nullptr, nullptr);
    return accepted_ >= 0;
  }
  // Reads until text has arrived, the peer's end, or 10 s without data.
  std::string receiveUntil(const std::string& text) { return test::receiveUntil(accepted_, text); }
  // Exactly count bytes, which the kernel already holds for this end.
  std::string receive(size_t count) {
    std::string got;
    char buffer[65536];
    while (got.size() < count) {
      const ssize_t n = ::recv(accepted_, buffer, std::min(sizeof buffer, count - got.size()), 0);
      if (n <= 0) break;
      got.append(buffer, static_cast<size_t>(n));
    }
    return got;
  }
  void send(const std::string& text) { test::sendAll(accepted_, text); }
  // True once the other side has ended the connection.
  bool seesEnd() {
    pollfd entry{accepted_, POLLIN, 0};
    char byte;
    return ::poll(&entry, 1, 10000) == 1 && ::recv(accepted_, &byte, 1, 0) == 0;
  }
  void close() { ::close(std::exchange(accepted_, -1)); }

 private:
  int listener_ = -1;
  int accepted_ = -1;
  int port_ = 0;
};

ptrdiff_t write(QVOutputStream& stream, const std::string& text) {
  return stream.write(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

class QVLogRelaySocketStreamTest : public ::testing::Test {
 protected:
  void open(const std::vector<uint8_t>& address) {
    std::tie(input_, output_) = QVSocketConnection::makeStreams(address);
    for (std::shared_ptr<QVByteStream> stream :
         {std::shared_ptr<QVByteStream>(input_), std::shared_ptr<QVByteStream>(output_)}) {
      stream->setDelegate(log_);
      stream->open();
      stream->scheduleInRunLoop(loop_);
    }
  }
  bool await(const std::shared_ptr<QVByteStream>& stream, QVByteStream::Event event) {
    return loop_.runUntil([&] { return log_->saw(stream, event); }, 5s);
  }

  QVRunLoop loop_;
  std::shared_ptr<EventLog> log_ = std::make_shared<EventLog>();
  std::shared_ptr<QVSocketInputStream> input_;
  std::shared_ptr<QVSocketOutputStream> output_;
};

TEST_F(QVLogRelaySocketStreamTest, WritesReachThePeerAndItsCloseIsHeard) {
  Peer peer;
  open(peer.address());
  // Written before the connect is known to be done: the write waits for it.
  EXPECT_EQ(write(*output_, "hello, "), 7);
  ASSERT_TRUE(peer.accept());
  EXPECT_TRUE(await(output_, QVByteStream::kEventOpenCompleted));
  EXPECT_TRUE(await(output_, QVByteStream::kEventHasSpaceAvailable));
  EXPECT_TRUE(await(input_, QVByteStream::kEventOpenCompleted));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusOpen);
  EXPECT_EQ(write(*output_, "tool"), 4);
  EXPECT_EQ(peer.receiveUntil("hello, tool"), "hello, tool");

  peer.send("ack");
  ASSERT_TRUE(await(input_, QVByteStream::kEventHasBytesAvailable));
  uint8_t buffer[8] = {};
  EXPECT_EQ(input_->read(buffer, sizeof buffer), 3);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 3), "ack");

  peer.close();
  ASSERT_TRUE(await(input_, QVByteStream::kEventEndEncountered));
  EXPECT_EQ(input_->streamStatus(), QVByteStream::kStatusAtEnd);
  // The peer's reset comes back after the first write into the closed
  // connection; from then on writes raise instead of looping.
  bool raised = false;
  loop_.runUntil(
      [&] {
        try {
          write(*output_, "more");
        } catch (const QVStreamException&) {
          raised = true;
        }
        return raised;
      },
      5s);
  EXPECT_TRUE(raised);
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusError);
}

TEST_F(QVLogRelaySocketStreamTest, ARefusedConnectionIsAnErrorAndWritesRaise) {
  Peer peer;
  peer.stopListening();
  open(peer.address());
  EXPECT_TRUE(await(output_, QVByteStream::kEventErrorOccurred));
  EXPECT_TRUE(await(input_, QVByteStream::kEventErrorOccurred));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusError);
  EXPECT_THAT(output_->streamError(), HasSubstr("refused"));
  EXPECT_THROW(write(*output_, "lost"), QVStreamException);
  EXPECT_FALSE(log_->saw(output_, QVByteStream::kEventOpenCompleted));
}

TEST_F(QVLogRelaySocketStreamTest, AClosedStreamSaysNothingMoreAndTakesNothing) {
  Peer peer;
  open(peer.address());
  ASSERT_TRUE(peer.accept());
  output_->close();
  input_->close();
  peer.send("unheard");
  EXPECT_TRUE(peer.seesEnd()) << "closing both streams ends the connection";
  // The bytes and the end are there to be seen by any watch still open.
  loop_.runUntilIdle();
  EXPECT_TRUE(log_->events.empty()) << "events of closed streams are dropped";
  EXPECT_THROW(write(*output_, "x"), QVStreamException);
}

// A peer that stops reading fills the connection: a write then takes
// nothing at once, leaving the stream open, and the stream says when it has
// room again.
TEST_F(QVLogRelaySocketStreamTest, AFullConnectionTakesNothingAtOnceAndTellsWhenItHasRoom) {
  Peer peer(4096);
  open(peer.address());
  ASSERT_TRUE(peer.accept());
  ASSERT_TRUE(await(output_, QVByteStream::kEventOpenCompleted));
  const std::string chunk(64 * 1024, '.');
  ptrdiff_t taken = 1;
  size_t total = 0;
  for (int n = 0; n < 1000 && taken > 0; ++n) total += (taken = write(*output_, chunk));
  EXPECT_EQ(taken, 0) << "the full connection took nothing, without waiting for room";
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusOpen);
  log_->events.clear();
  EXPECT_EQ(peer.receive(total).size(), total);
  EXPECT_TRUE(await(output_, QVByteStream::kEventHasSpaceAvailable));
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
  open(peer.address());
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
    received = peer.receiveUntil("last\n");
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
  EXPECT_THAT(received, EndsWith("last\n"));
}

}  // namespace
}  // namespace qv
