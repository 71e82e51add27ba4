#pragma once

#include <cstdint>

#include "QVCollectorDecoded.h"
#include "QVCollectorRequest.h"

namespace qv::collector {

// One stored request: what came in, what was answered and what it decoded to.
struct QVCollectorRecord {
  int64_t id = 0;
  int64_t receivedAt = 0;  // milliseconds since 1970-01-01 00:00 UTC
  int status = 0;          // the status the collector answered with
  QVCollectorRequest request;
  QVCollectorDecoded decoded;

  // The decoded payload as JSON text: the (inflated) body of a JSON request,
  // the query dictionary of a URL-encoded one; null for anything else.
  const std::string* payloadText() const;
};

}  // namespace qv::collector
