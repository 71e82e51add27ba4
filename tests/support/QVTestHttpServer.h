#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qv::test {

// One request as it arrived on the wire.
struct QVRecordedRequest {
  std::string method;
  std::string target;  // path and query, as in the request line
  std::string version;
  std::vector<std::pair<std::string, std::string>> headers;  // in the order sent
  std::string body;

  std::string path() const { return target.substr(0, target.find('?')); }
  // Everything after the first "?"; empty when there is none.
  std::string query() const;
  // The first header of that name (any case), and how many there are.
  std::optional<std::string> header(const std::string& name) const;
  size_t headerCount(const std::string& name) const;
};

// What the server does with a request after recording it.
struct QVTestReply {
  enum class Kind {
    kAnswer,          // a response with status, headers and body, then close
    kClose,           // close the connection without a word
    kStall,           // say nothing until the client gives up
    kHoldThenAnswer,  // answer only after release()
    // Reset the connection (RST) once the head is read, leaving any body
    // unread; the request is not recorded: the server never took it in.
    kResetWhileReading,
    // Read and record the whole request, send the status line, the headers
    // and part of the body, then reset: the client never gets the answer.
    kResetWhileAnswering,
    // Read the body slowly but steadily, kTrickleBytes every kTrickleGap,
    // then answer: a slow link that never stalls.
    kTrickle,
  };
  static constexpr size_t kTrickleBytes = 4096;
  static constexpr std::chrono::milliseconds kTrickleGap{40};
  using Headers = std::vector<std::pair<std::string, std::string>>;

  static QVTestReply answer(int status, Headers headers = {}) {
    return QVTestReply{Kind::kAnswer, status, std::move(headers), ""};
  }
  static QVTestReply of(Kind kind) { return QVTestReply{kind, 200, {}, ""}; }

  Kind kind = Kind::kAnswer;
  int status = 200;
  Headers headers;
  std::string body;
};

// An HTTP/1.1 server on 127.0.0.1 at an ephemeral port that records every
// request (headers in order, raw body) and answers from a list of replies,
// then with 200. Constructing one unsets the proxy variables, so that clients
// reach it directly. One connection at a time, each closed after its answer.
// Every wait is bounded, so a test that goes wrong still ends. A receive
// buffer size, when given, keeps the kernel from taking in much more than
// the server has read (a slow reader is then slow for the client too).
// Made not listening, its port refuses connections until listen().
class QVTestHttpServer {
 public:
  explicit QVTestHttpServer(int receiveBufferBytes = 0, bool listening = true);
  ~QVTestHttpServer();
  QVTestHttpServer(const QVTestHttpServer&) = delete;
  QVTestHttpServer& operator=(const QVTestHttpServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& target) const;

  void listen();
  void addReply(QVTestReply reply);
  // Lets a kHoldThenAnswer reply go.
  void release();

  std::vector<QVRecordedRequest> requests() const;
  // A copy of the request recorded at index; the test fails on a bad index.
  QVRecordedRequest request(size_t index) const;
  bool waitForRequests(size_t count, std::chrono::seconds bound = std::chrono::seconds(30)) const;

 private:
  void serve();
  void handle(int fd);
  // The head, with whatever part of the body came along with it, then as
  // much body as Content-Length says (slowly: kTrickleBytes at a time,
  // kTrickleGap apart); false when the client stops sending first.
  bool readHead(int fd, QVRecordedRequest& request) const;
  bool readBody(int fd, QVRecordedRequest& request, bool slowly) const;
  // Appends what one read brings, at most that many bytes.
  bool receive(int fd, std::string& data, size_t most) const;
  bool waitReadable(int fd, std::chrono::milliseconds bound) const;
  QVTestReply nextReply();

  int listenFd_ = -1;
  int stopPipe_[2] = {-1, -1};
  int port_ = 0;
  std::thread thread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<QVRecordedRequest> requests_;
  std::deque<QVTestReply> replies_;
  bool released_ = false;
  bool stopping_ = false;
};

}  // namespace qv::test
