#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QVCollectorRequest.h"

namespace qv::collector {

// Decides from a request's head, before its body is read, whether the
// collector takes it at all. A body announced past the limit is refused
// before it is sent (cpp-httplib would wait for it, to discard it). A
// request whose length is ambiguous could be
// read two ways (and smuggle a second request in its body). A web page the
// developer opens elsewhere may post to 127.0.0.1 from the browser, or
// reach it through a name that it made resolve there (DNS rebinding): a
// Host that is not this collector and a write that another origin makes
// are turned away, while clients that are not browsers (libcurl, curl)
// send no Origin and the collector's own address as Host.
class QVCollectorGate {
 public:
  struct Verdict {
    int status = 0;   // 0: take the request
    std::string why;  // for the answer and the log
  };

  QVCollectorGate(int port, std::vector<std::string> extraNames, int64_t maxBody);

  Verdict check(const std::string& method, const QVCollectorRequest::Headers& headers) const;

 private:
  Verdict framing(const QVCollectorRequest::Headers& headers) const;
  // host is "name" or "name:port" as a Host header writes it.
  bool isThisCollector(const std::string& host) const;
  bool isOwnOrigin(const std::string& origin) const;

  int port_;
  std::vector<std::string> names_;
  int64_t maxBody_;
};

}  // namespace qv::collector
