#pragma once

#include <httplib.h>

#include <chrono>
#include <string>

#include "QVCollectorRequest.h"

namespace qv::collector {

// One connection's bytes as cpp-httplib reads and writes them, which also
// keeps each request's head (request line and headers) as it arrived:
// cpp-httplib files headers in a map sorted by name, and the collector shows
// them in the order the client sent them.
class QVCollectorSocketStream : public httplib::Stream {
 public:
  QVCollectorSocketStream(int socket, std::chrono::microseconds readTimeout,
                          std::chrono::microseconds writeTimeout,
                          std::chrono::milliseconds requestTimeout);

  // Starts keeping the head of the next request, which must then arrive
  // whole within the request time-out: a per-read time-out alone lets a
  // client that sends a byte now and then hold the thread for ever.
  void beginRequest();
  // Whether bytes of a next request were read ahead already.
  bool hasBuffered() const { return position_ < buffered_.size(); }
  // The head read so far, and its header lines parsed, in order.
  const std::string& head() const { return head_; }
  QVCollectorRequest::Headers headers() const;
  // Ends a request whose body runs past this many bytes on the wire: a
  // chunked body has no length to check before it is read.
  void setBodyLimit(size_t bytes) { bodyLimit_ = bytes; }
  bool overLimit() const { return overLimit_; }
  // Asks the connection to end after the current request.
  void requestClose() { closeRequested_ = true; }
  bool closeRequested() const { return closeRequested_; }

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return socket_; }

 private:
  bool waitFor(short events, std::chrono::microseconds timeout) const;
  // The read time-out, cut short by the request's deadline.
  std::chrono::microseconds readWait() const;
  void keep(const char* bytes, size_t size);

  // cpp-httplib reads request lines a byte at a time; a buffer saves a
  // system call per byte.
  static constexpr size_t kBufferSize = 4096;

  int socket_;
  std::chrono::microseconds readTimeout_;
  std::chrono::microseconds writeTimeout_;
  std::chrono::milliseconds requestTimeout_;
  std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::time_point::max();
  std::string buffered_;
  size_t position_ = 0;
  std::string head_;
  bool headComplete_ = false;
  size_t bodyLimit_ = SIZE_MAX;
  size_t bodyRead_ = 0;
  bool overLimit_ = false;
  bool closeRequested_ = false;
};

}  // namespace qv::collector
