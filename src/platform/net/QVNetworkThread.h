#pragma once

// A standard header before Asio: Asio picks aligned_alloc or operator new
// for its recycled blocks from a macro of the standard library's own
// configuration. A file that included Asio first chose operator delete
// while the others chose aligned_alloc, and a block allocated by one was
// freed by the other.
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

namespace qv {

// The thread that waits on the sockets of the socket streams: a run loop can
// only wait for a socket to become readable, and a stream must also notice
// that a connect completed or that the peer's window opened again. Made on
// first use and never destroyed, like the other process-wide services.
class QVNetworkThread {
 public:
  static QVNetworkThread& shared();

  // Asio objects made on this context are touched only from tasks posted to
  // it, which all run on the one thread.
  asio::io_context& context() { return io_; }

 private:
  QVNetworkThread();

  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
  std::thread thread_;
};

}  // namespace qv
