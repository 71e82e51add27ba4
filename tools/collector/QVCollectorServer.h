#pragma once

#include <iosfwd>
#include <memory>
#include <mutex>
#include <thread>

#include "QVCollectorApi.h"
#include "QVCollectorGate.h"
#include "QVCollectorLimits.h"
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
// are the collector's own page and API. A request that could not be stored
// is answered 503, so that its client keeps it and sends it again. The gate
// turns away, before their bodies are read, requests with an ambiguous
// length and those that a web page of another origin makes; the limits
// bound what a request may cost. One line per request goes to the log
// stream. cpp-httplib serves from a pool of threads; the store serialises
// their writes.
class QVCollectorServer {
 public:
  QVCollectorServer(QVCollectorStore& store, QVCollectorReplyPolicy& policy, std::ostream& log,
                    QVCollectorLimits limits = {});
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
  bool admit(const httplib::Request& request, httplib::Response& response) const;
  void handle(const httplib::Request& request, httplib::Response& response);
  void serve(const httplib::Request& request, httplib::Response& response);
  void capture(QVCollectorRequest request, httplib::Response& response);
  void noteRefused(const httplib::Request& request, const httplib::Response& response);
  void refuse(QVCollectorRequest request, int status, std::string problem);
  // Stores the record and logs its line; false (and status 503) when it
  // could not be stored.
  bool keep(QVCollectorRecord& record);

  QVCollectorStore& store_;
  QVCollectorApi api_;
  QVCollectorReplyPolicy& policy_;
  const QVCollectorLimits limits_;
  std::unique_ptr<QVCollectorGate> gate_;  // from bind() on
  std::ostream& log_;
  std::mutex logMutex_;
  std::unique_ptr<QVCollectorHttpServer> http_;
  std::thread thread_;
};

}  // namespace qv::collector
