#include "QVCollectorHttpServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace qv::collector {

namespace {

thread_local QVCollectorSocketStream* current = nullptr;

// How often a waiting connection looks whether the server has stopped.
constexpr int kStopCheckMilliseconds = 100;

}  // namespace

#if defined(__SANITIZE_THREAD__)
// cpp-httplib comes prebuilt, out of ThreadSanitizer's sight: a pool thread
// builds its function-local statics and the others read them after an inline
// guard check that the sanitizer cannot observe, which it reports as races
// inside the library's memcpy and memcmp. Those calls are left unchecked.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib.so\n";
}
#endif

const QVCollectorSocketStream* QVCollectorHttpServer::currentStream() { return current; }

void QVCollectorHttpServer::closeCurrentConnection() {
  if (current) current->requestClose();
}

bool QVCollectorHttpServer::process_and_close_socket(socket_t socket) {
  using std::chrono::microseconds;
  using std::chrono::seconds;
  QVCollectorSocketStream stream(
      socket, seconds(read_timeout_sec_) + microseconds(read_timeout_usec_),
      seconds(write_timeout_sec_) + microseconds(write_timeout_usec_), requestTimeout_);
  stream.setBodyLimit(bodyLimit_);
  bool served = false;
  try {
    served = serve(stream);
  } catch (...) {
    // Out of memory, say: this connection ends, the collector goes on.
    current = nullptr;
  }
  ::shutdown(socket, SHUT_RDWR);
  ::close(socket);
  return served;
}

bool QVCollectorHttpServer::serve(QVCollectorSocketStream& stream) {
  bool served = false;
  for (size_t left = keep_alive_max_count_; left > 0 && waitForRequest(stream); --left) {
    bool closed = false;
    stream.beginRequest();
    current = &stream;
    served = process_request(stream, left == 1, closed, nullptr);
    current = nullptr;
    if (!served || closed || stream.closeRequested()) break;
  }
  return served;
}

bool QVCollectorHttpServer::waitForRequest(const QVCollectorSocketStream& stream) const {
  if (stream.hasBuffered()) return true;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
  while (svr_sock_ != INVALID_SOCKET && std::chrono::steady_clock::now() < deadline) {
    pollfd entry{stream.socket(), POLLIN, 0};
    const int ready = ::poll(&entry, 1, kStopCheckMilliseconds);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

}  // namespace qv::collector
