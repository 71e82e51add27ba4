#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "qvcore/platform/QVRunLoop.h"

namespace qv {

class QVLogToolPrinter;

// Accepts TCP connections on one port and hands what each sends to the
// printer. Everything runs on one run loop, through its fd watches; the
// connections are only read, never written to. A connection that sends
// nothing for the idle time-out is closed, so that peers which vanished
// without a word (or never meant to talk) do not pile up. When accepting
// fails for want of descriptors or memory, the listener rests for a while
// instead of being called again at once, which would spin a core.
class QVLogToolServer {
 public:
  static constexpr std::chrono::seconds kAcceptRest{1};

  QVLogToolServer(QVRunLoop& loop, QVLogToolPrinter& printer,
                  std::chrono::milliseconds idleTimeout);
  ~QVLogToolServer();
  QVLogToolServer(const QVLogToolServer&) = delete;
  QVLogToolServer& operator=(const QVLogToolServer&) = delete;

  // Listens on port (0: one the system picks), on IPv6 and IPv4 where the
  // system has both. Answers the port, or 0 with error set.
  uint16_t listen(uint16_t port, std::string& error);

 private:
  struct Connection {
    QVRunLoop::WatchId watch = 0;
    std::string peer;
    std::chrono::steady_clock::time_point lastHeard;
  };

  int openListener(int family, uint16_t port, std::string& error);
  void watchListener();
  void acceptAll();
  void restListener();
  void readFrom(int fd);
  void drop(int fd);
  // Closes the connections idle for the time-out; runs while there are any.
  void sweepIdle();
  void scheduleSweep();
  // Runs task later on the loop, unless this server is gone by then.
  void later(std::chrono::milliseconds delay, void (QVLogToolServer::*task)());

  QVRunLoop& loop_;
  QVLogToolPrinter& printer_;
  int listener_ = -1;
  QVRunLoop::WatchId listenerWatch_ = 0;
  std::map<int, Connection> connections_;
  const std::chrono::milliseconds idleTimeout_;
  bool sweepScheduled_ = false;
  std::shared_ptr<QVLogToolServer*> self_ = std::make_shared<QVLogToolServer*>(this);
};

}  // namespace qv
