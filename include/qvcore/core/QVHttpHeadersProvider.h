#pragma once

#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Optional operation of a module: headers of its own for each post of its
// queue. The server connection probes for it with dynamic_cast.
class QV_EXPORT QVHttpHeadersProvider {
 public:
  virtual ~QVHttpHeadersProvider() = default;
  // A dictionary of header name to value, for a post of json in the session
  // sessionId. The headers are set after the connection's own, replacing any
  // of the same name. String values are sent as they are, numbers (booleans
  // as 1 and 0) in their decimal form; null, arrays and dictionaries are
  // left out, as is everything when the answer is not a dictionary.
  virtual QVValue httpHeadersForSessionIdAndJson(const std::string& sessionId,
                                                 const std::string& json) = 0;
};

}  // namespace qv
