#pragma once

#include <httplib.h>

#include <chrono>
#include <cstdint>

#include "QVCollectorSocketStream.h"

namespace qv::collector {

// cpp-httplib's server, reading each connection through a
// QVCollectorSocketStream so that handlers can see the request's head as
// the client sent it. Everything else (parsing, routing, the thread pool,
// keep-alive limits) is cpp-httplib's.
class QVCollectorHttpServer : public httplib::Server {
 public:
  // The stream of the request that the calling thread is serving; handlers,
  // the pre-routing handler and the logger all run on that thread.
  static const QVCollectorSocketStream* currentStream();
  // Closes the current connection once its response is out. A request that
  // cpp-httplib refused may leave unread bytes behind, and waiting for a
  // next request on such a connection only holds the client up.
  static void closeCurrentConnection();
  // How long a request may take to arrive whole, head and body.
  void setRequestTimeout(std::chrono::milliseconds timeout) { requestTimeout_ = timeout; }
  // How many body bytes a request may send on the wire.
  void setBodyLimit(size_t bytes) { bodyLimit_ = bytes; }

 private:
  bool process_and_close_socket(socket_t socket) override;
  // Waits for the next request of a kept-alive connection, giving up when
  // the keep-alive time is over or the server stops.
  bool waitForRequest(const QVCollectorSocketStream& stream) const;
  bool serve(QVCollectorSocketStream& stream);

  std::chrono::milliseconds requestTimeout_{10000};
  size_t bodyLimit_ = SIZE_MAX;
};

}  // namespace qv::collector
