#pragma once

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVMutableURLRequest.h"

namespace qv {

// Optional operation of a module: cookies of its own for each post of its
// queue, set as a "Cookie" header on the request. The session sends that
// header in one line with the cookies it stored itself. The server
// connection probes for it with dynamic_cast.
//
// Threads: as QVHttpHeadersProvider, right after it, for the same request.
class QV_EXPORT QVCookieProvider {
 public:
  virtual ~QVCookieProvider() = default;
  virtual void addCookiesToRequest(QVMutableURLRequest& request) = 0;
};

}  // namespace qv
