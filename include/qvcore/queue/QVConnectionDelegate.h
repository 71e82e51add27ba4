#pragma once

#include <memory>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVMutableURLRequest.h"

namespace qv {

class QVQueue;

// Learns the outcome of each post of a QVServerConnection, on the HTTP
// session's callback thread (or at once, on the posting thread, when a post
// cannot start). The queue may be null when nobody else held it any more.
class QV_EXPORT QVConnectionDelegate {
 public:
  virtual ~QVConnectionDelegate() = default;

  virtual void flushCompletedForQueue(const std::shared_ptr<QVQueue>& queue) = 0;
  virtual void flushFailedForQueue(const std::shared_ptr<QVQueue>& queue) = 0;
  // The post failed for a reason that no later attempt can change: the
  // queue's own payload cannot be made into a request (a URL-encoded post
  // whose JSON is not a dictionary with an entry), whatever the module's
  // configuration or the server. reason says why, in a few words. Failures
  // that may pass (configuration, transport, server) still arrive as
  // flushFailedForQueue. The default treats it as any other failure.
  virtual void flushRejectedForQueue(const std::shared_ptr<QVQueue>& queue,
                                     const std::string& reason);

  // Optional: called with each request before it is sent, on the posting
  // thread. It may change the request in place or answer another one; null
  // keeps the request. The default answers null, which is the same as not
  // implementing it. A request answered for an upload is sent with its own
  // body.
  virtual std::shared_ptr<QVMutableURLRequest> beforeFlushingRequestForQueue(
      const std::shared_ptr<QVMutableURLRequest>& request, const std::shared_ptr<QVQueue>& queue);
};

}  // namespace qv
