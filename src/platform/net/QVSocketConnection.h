#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qv {

class QVSocketInputStream;
class QVSocketOutputStream;

// One TCP connection shared by an input and an output stream. The socket is
// non-blocking: the connect is started by the first stream that opens, and
// the network thread watches the socket and tells the streams what it sees.
// The socket is closed once both streams are closed or gone.
class QVSocketConnection : public std::enable_shared_from_this<QVSocketConnection> {
 public:
  using Streams =
      std::pair<std::shared_ptr<QVSocketInputStream>, std::shared_ptr<QVSocketOutputStream>>;

  // Two unopened streams of one new connection to address, a sockaddr_in or
  // sockaddr_in6 in its raw bytes.
  static Streams makeStreams(const std::vector<uint8_t>& address);

  explicit QVSocketConnection(std::vector<uint8_t> address);
  ~QVSocketConnection();
  QVSocketConnection(const QVSocketConnection&) = delete;
  QVSocketConnection& operator=(const QVSocketConnection&) = delete;

  // A stream opened: connects on the first call; tells the stream at once
  // when the connection is already up or broken.
  void streamOpened();
  // Both streams closed ends the connection.
  void streamClosed();

  // Sends what the kernel takes now and answers the count, 0 when it takes
  // nothing (still connecting, or the peer's window is full); the output
  // stream is then told when there is room. Raises QVStreamException on
  // failure.
  ptrdiff_t send(const uint8_t* buffer, size_t length);
  // Reads what is there without waiting: the count, 0 at the end or when
  // nothing is there yet, -1 on failure.
  ptrdiff_t receive(uint8_t* buffer, size_t length);
  bool hasBytesAvailable() const;
  bool hasSpaceAvailable() const;
  // Tells the output stream once when the socket has room again.
  void watchWritable() { watch(true); }

  // Tells the input stream once when bytes arrive or the peer closes.
  void watchReadable();

 private:
  enum class State { kIdle, kConnecting, kOpen, kFailed, kClosed };
  struct Watcher;

  void connect();
  void watch(bool forWriting);
  void waitEnded(bool forWriting);
  void connectEnded();
  void readableNow();
  void fail(const std::string& error);
  void tellOpened();
  void shutDown();
  bool pollFor(short events, int timeoutMs) const;
  int socketOrThrow() const;

  std::vector<uint8_t> address_;
  std::weak_ptr<QVSocketInputStream> input_;
  std::weak_ptr<QVSocketOutputStream> output_;

  mutable std::mutex mutex_;
  State state_ = State::kIdle;
  std::string error_;
  int fd_ = -1;
  int closedStreams_ = 0;
  bool readWatched_ = false;
  bool writeWatched_ = false;
  // Touched only on the network thread.
  std::shared_ptr<Watcher> watcher_;
};

}  // namespace qv
