#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "qvcore/platform/QVRunLoop.h"

namespace qv {

class QVLogToolPrinter;

// Accepts TCP connections on one port and hands what each sends to the
// printer. Everything runs on one run loop, through its fd watches; the
// connections are only read, never written to.
class QVLogToolServer {
 public:
  QVLogToolServer(QVRunLoop& loop, QVLogToolPrinter& printer);
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
  };

  int openListener(int family, uint16_t port, std::string& error);
  void acceptAll();
  void readFrom(int fd);
  void drop(int fd);

  QVRunLoop& loop_;
  QVLogToolPrinter& printer_;
  int listener_ = -1;
  QVRunLoop::WatchId listenerWatch_ = 0;
  std::map<int, Connection> connections_;
};

}  // namespace qv
