#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qv::collector {

// What the collector takes from a client, so that no request can exhaust
// its memory, its disk or its threads, and which names it answers to.
struct QVCollectorLimits {
  // A larger body is answered 413 before it is read.
  int64_t maxBodyBytes = int64_t{64} << 20;
  // A gzip or deflate body that inflates past this is answered 413.
  int64_t maxInflatedBytes = int64_t{64} << 20;
  // A request (head and body) must arrive whole within this; a client
  // that trickles bytes would otherwise hold a server thread for ever.
  int64_t requestTimeoutSeconds = 10;
  // Host names answered besides 127.0.0.1 and localhost.
  std::vector<std::string> hostNames;
};

}  // namespace qv::collector
