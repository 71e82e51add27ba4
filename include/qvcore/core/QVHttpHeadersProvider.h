#pragma once

#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Optional operation of a module: headers of its own for each post of its
// queue. The server connection probes for it with dynamic_cast.
//
// Threads: called while a request is built, on the thread that starts the
// post: the queue service's flush queue, the HTTP session's callback thread
// (an outcome starts the next post) or the thread running the terminate
// path or the crash hook; never two at once, since one post is under way at
// a time. No lock of the core is held, so it may read the core and its
// configuration; it must not wait for a flush to end (the flush waits for
// it), and every moment it takes delays every post behind it. A
// std::exception thrown here fails the post, which is then cached.
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
