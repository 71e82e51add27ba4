#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvcore/QVExport.h"

namespace qv {

// An HTTP request being put together: URL, method, headers, body, time-out
// and whether the session's cookie store takes part. A session reads it once,
// when a task starts, so it may be changed or dropped afterwards.
//
// Header names compare without regard to case. Setting a header replaces one
// of the same name where it stands, so headers keep the order in which they
// were first set, and that is the order in which they are sent.
class QV_EXPORT QVMutableURLRequest {
 public:
  using Header = std::pair<std::string, std::string>;

  explicit QVMutableURLRequest(std::string url);

  // A request for url, or null when url is not a valid URL (isValidURL).
  static std::shared_ptr<QVMutableURLRequest> requestWithURL(const std::string& url);

  // A URL is valid when it holds only characters that RFC 3986 allows in a
  // URL ("%" only before two hexadecimal digits), and libcurl's parser reads
  // it as an absolute URL with a scheme and a host. So spaces, quotes and
  // braces must be percent-encoded; "?" may appear again inside a query.
  static bool isValidURL(const std::string& url);

  const std::string& URL() const { return url_; }

  // "GET" unless set.
  const std::string& HTTPMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }

  const std::vector<Header>& allHTTPHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(const std::string& field) const;
  void setValueForHTTPHeaderField(const std::string& value, const std::string& field);

  // Null when the request has no body. The bytes are shared, not copied,
  // with copies of the request and with the tasks that send them.
  const std::shared_ptr<const std::string>& HTTPBody() const { return body_; }
  void setHTTPBody(std::shared_ptr<const std::string> body) { body_ = std::move(body); }
  void setHTTPBody(std::string body);

  // Seconds the whole transfer may take; 60 unless set.
  double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }

  // Whether the session sends the cookies it stored for the URL and stores
  // those that the response sets; on unless set.
  bool HTTPShouldHandleCookies() const { return shouldHandleCookies_; }
  void setHTTPShouldHandleCookies(bool handle) { shouldHandleCookies_ = handle; }

 private:
  std::vector<Header>::iterator findHeader(const std::string& field);

  std::string url_;
  std::string method_ = "GET";
  std::vector<Header> headers_;
  std::shared_ptr<const std::string> body_;
  double timeoutInterval_ = 60.0;
  bool shouldHandleCookies_ = true;
};

}  // namespace qv
