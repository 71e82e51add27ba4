#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qv::collector {

// What the collector made of a request: how its body was encoded, what it
// held once decoded, and whether that fits the payload format.
struct QVCollectorDecoded {
  // "identity", "gzip", "deflate", or the Content-Encoding as the client named it.
  std::string encoding = "identity";
  // "json" (the body), "urlencoded" (the query), "empty", "bytes" (neither
  // readable as JSON nor a query), or "refused" (the HTTP layer turned the
  // request away before it could be read whole).
  std::string kind = "empty";
  // The body after inflating, when it came compressed and inflated cleanly.
  std::optional<std::string> inflated;
  // The query as a JSON dictionary, when the request had a query.
  std::optional<std::string> queryFields;
  int64_t messages = 0;
  int64_t rawBytes = 0;      // the payload as it travelled (body, else query)
  int64_t decodedBytes = 0;  // the payload once inflated or percent-decoded
  // Empty when the request fits the payload format; otherwise why not.
  std::string problem;
  // The body inflates past the collector's limit: it is answered 413.
  bool tooLarge = false;
};

}  // namespace qv::collector
