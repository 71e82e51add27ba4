#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVHttpError.h"
#include "qvcore/platform/QVHttpResponse.h"
#include "qvcore/platform/QVMutableURLRequest.h"

namespace qv {

// Sends HTTP requests and reports each outcome once. The process shares one
// session (shared()), whose cookie store every request that handles cookies
// reads and fills. Tests install a session of their own with setShared.
//
// Threads: the tasks may be started from any thread and must return without
// waiting for the network. Each completion handler runs once, on a thread
// of the session's own (the libcurl session has one callback thread, so its
// outcomes arrive one at a time and in no lock of the caller); never inside
// the call that started the task, except for a request that cannot be
// started or a session that has stopped, which fail at once. The handler
// may start the next task from there, which the queue service does after
// every outcome.
class QV_EXPORT QVHttpSession {
 public:
  // A response when the server answered (even with an error status), an
  // error when the transfer failed; a response may come with an error when
  // the transfer broke off after the status line.
  using CompletionHandler =
      std::function<void(std::optional<QVHttpResponse> response, std::optional<QVHttpError> error)>;

  virtual ~QVHttpSession();

  // Sends request with body as its payload instead of the request's own
  // body; a null body sends none. The session keeps body alive until the
  // transfer ends, and never copies it.
  virtual void uploadTaskWithRequest(const QVMutableURLRequest& request,
                                     std::shared_ptr<const std::string> body,
                                     CompletionHandler completion) = 0;
  // Sends request as it is, with its own body unless the method is GET or
  // HEAD, which send none.
  virtual void dataTaskWithRequest(const QVMutableURLRequest& request,
                                   CompletionHandler completion) = 0;

  // The session in use: the one set, else the process's libcurl session,
  // made on first use and never destroyed.
  static std::shared_ptr<QVHttpSession> shared();
  // A null session goes back to the libcurl one.
  static void setShared(std::shared_ptr<QVHttpSession> session);
};

}  // namespace qv
