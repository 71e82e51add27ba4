#pragma once

#include <string>

#include "QVCollectorDecoded.h"
#include "QVCollectorRequest.h"

namespace qv::collector {

// Turns a request into its decoded form: the body inflated as its
// Content-Encoding says and read as JSON, or, for a request without a body,
// the query read as the dictionary of a URL-encoded post; then holds the
// result against the payload format.
class QVCollectorDecoder {
 public:
  // A body that inflates past maxInflated is not inflated further.
  static QVCollectorDecoded decode(const QVCollectorRequest& request,
                                   size_t maxInflated = size_t{64} << 20);

 private:
  static void decodeBody(const QVCollectorRequest& request, size_t maxInflated,
                         QVCollectorDecoded& decoded);
  static void decodeQuery(const QVCollectorRequest& request, QVCollectorDecoded& decoded);
  static void readJson(const std::string& text, QVCollectorDecoded& decoded);
  static std::string encodingOf(const QVCollectorRequest& request);
};

}  // namespace qv::collector
