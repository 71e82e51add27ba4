#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <thread>

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
