#pragma once

#include <iosfwd>
#include <memory>
#include <mutex>
#include <thread>

#include "QVCollectorApi.h"
#include "QVCollectorRecord.h"
#include "QVCollectorReplyPolicy.h"
#include "QVCollectorStore.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace qv::collector {

class QVCollectorHttpServer;

// The HTTP side of the collector, on 127.0.0.1 only. Every request is stored
// and answered as the reply policy says, except requests under /_qv/, which
// are the collector's own page and API. One line per stored request goes to
// the log stream. cpp-httplib serves from a pool of threads; the store
// serialises their writes.
class QVCollectorServer {
 public:
  QVCollectorServer(QVCollectorStore& store, QVCollectorReplyPolicy& policy, std::ostream& log);
  ~QVCollectorServer();
  QVCollectorServer(const QVCollectorServer&) = delete;
  QVCollectorServer& operator=(const QVCollectorServer&) = delete;

  // Binds 127.0.0.1 at the port (0: a free one) and answers the port bound,
  // or 0 when the port cannot be had. Connections queue from here on.
  int bind(int port);
  // Serves on a thread of its own; returns once the server accepts.
  void start();
  // Stops serving and joins the thread; waits for requests in progress.
  void stop();

 private:
  void install();
  void handle(const httplib::Request& request, httplib::Response& response);
  void capture(QVCollectorRequest request, httplib::Response& response);
  void noteRefused(const httplib::Request& request, const httplib::Response& response);
  void keep(QVCollectorRecord& record);

  QVCollectorStore& store_;
  QVCollectorApi api_;
  QVCollectorReplyPolicy& policy_;
  std::ostream& log_;
  std::mutex logMutex_;
  std::unique_ptr<QVCollectorHttpServer> http_;
  std::thread thread_;
};

}  // namespace qv::collector
