#pragma once

#include <memory>
#include <thread>

#include "qvcore/platform/QVHttpSession.h"

namespace qv {

// The HTTP session on libcurl: one multi handle driven by one callback
// thread, which runs every transfer and calls every completion. Starting a
// task from any thread hands the prepared transfer to that thread and wakes
// it (curl_multi_wakeup). Cookies live in a share handle that all
// transfers of the session use; as easy handles are set up on the calling
// thread, the share carries lock callbacks.
//
// Cookies with an expiry outlive the process: they are kept in
// "QVCoreCookies.txt" in the application's data folder (libcurl's
// Netscape lines, mode 0600, the folder made 0700), read when the session
// starts and written by the callback thread after a response that set
// cookies, when the persistent ones changed. Session cookies stay in
// memory. The file's place is fixed when the session is made.
//
// The request's time-out limits how long a transfer may go without moving
// a byte either way (connecting included), not the whole transfer: a slow
// link that keeps moving is never cut, a stalled one fails as timed out
// (CURLE_OPERATION_TIMEDOUT) about the time-out after its last byte.
//
// What goes on the wire is the request, and libcurl adds only what HTTP
// needs: "Host" and, for a body, "Content-Length" when the request has none.
// Its own "Accept", "Expect: 100-continue" and form "Content-Type" are
// suppressed, no "Accept-Encoding" or "User-Agent" is added, a GET carries no
// body, and redirects are not followed. A request's "Cookie" header joins the
// stored cookies in one "Cookie" line. Headers whose name is not an HTTP
// token, or whose value holds CR, LF or NUL, are left out rather than let
// split the request. Only http and https URLs are fetched.
//
// An https server must present a certificate that chains to a trusted one
// and names the URL's host, else the transfer fails. The trusted
// certificates are libcurl's default bundle, or the PEM file that
// QVCORE_CA_BUNDLE names when the session is created.
//
// Destroying the session cancels what is unfinished: each completion is
// called with QVHttpError::kCancelled. A completion that throws a
// std::exception is ignored; it does not stop the thread.
class QVCurlHttpSession : public QVHttpSession {
 public:
  QVCurlHttpSession();
  ~QVCurlHttpSession() override;
  QVCurlHttpSession(const QVCurlHttpSession&) = delete;
  QVCurlHttpSession& operator=(const QVCurlHttpSession&) = delete;

  void uploadTaskWithRequest(const QVMutableURLRequest& request,
                             std::shared_ptr<const std::string> body,
                             CompletionHandler completion) override;
  void dataTaskWithRequest(const QVMutableURLRequest& request,
                           CompletionHandler completion) override;

  // The idle time-out of a transfer, in milliseconds: the request's seconds
  // rounded up, 60 s when not positive, at most 2^31-1 ms.
  static long timeoutMilliseconds(double seconds);

 private:
  class Engine;
  std::shared_ptr<Engine> engine_;
  std::thread thread_;
};

}  // namespace qv
