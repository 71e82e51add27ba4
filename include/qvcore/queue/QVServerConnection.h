#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVHttpError.h"
#include "qvcore/platform/QVHttpResponse.h"
#include "qvcore/platform/QVMutableURLRequest.h"
#include "qvcore/platform/QVObject.h"
#include "qvcore/queue/QVConnectionDelegate.h"

namespace qv {

class QVQueue;

// Posts one queue at a time to a module's collection server over the shared
// HTTP session (QVHttpSession::shared()) and reports the outcome to its
// delegate. It owns the wire format of a post:
//
// - JSON: POST of the queue's JSON text with "Accept" "*/*", "Accept-Encoding"
//   "gzip, deflate", "Content-Type" "text/json; charset=UTF-8",
//   "Content-Length", "User-Agent" (the core's browser user agent) and
//   "X-QVCORE" "Lib/<framework version>", in that order.
// - URL-encoded (module item "URLEncoded" true): GET of the URL + "?" + the
//   payload's urlEncodedString, even when the URL has a query already, with
//   only "User-Agent" and "X-QVCORE".
//
// Either way the module's headers (QVHttpHeadersProvider) come after the
// fixed ones and may replace them, then the module's cookies
// (QVCookieProvider); cookies are handled through the session's store; the
// time-out is the core's "PostMessageTimeout". A URL must pass
// QVMutableURLRequest::isValidURL, or the post fails without being sent.
// Statuses 200 to 399 are success (a redirect is not followed), anything
// else, a transport error or no response, failure. Nothing is retried. A
// URL-encoded payload that is not a JSON dictionary with an entry can never
// make a request: that post is reported as rejected, not failed.
//
// Threads: posts come from one place at a time (the queue service's flush
// queue, or a delegate callback); outcomes arrive on the session's callback
// thread. busy is atomic, and the check-and-set of a post is one step, so
// two posts never run together. An exception raised after busy was set is
// swallowed and leaves the connection busy, refusing later posts.
class QV_EXPORT QVServerConnection : public QVObject,
                                     public std::enable_shared_from_this<QVServerConnection> {
  struct Token {
    explicit Token() = default;
  };

 public:
  explicit QVServerConnection(Token) {}

  // Not busy, no current queue; the delegate is held weakly.
  static std::shared_ptr<QVServerConnection> initWithDelegate(
      const std::shared_ptr<QVConnectionDelegate>& delegate);

  std::string className() const override { return "QVServerConnection"; }

  // Posts the queue's JSON to url, or fails it at once when a post is in
  // flight. A null queue is failed at once too.
  void postQueueToURL(const std::shared_ptr<QVQueue>& queue, const std::string& url);
  void postJSONStringToURLWithSessionId(std::string json, const std::string& url,
                                        const std::optional<std::string>& sessionId);
  void urlEncodeAndPostJSONStringToURLWithSessionId(const std::string& json, const std::string& url,
                                                    const std::optional<std::string>& sessionId);

  // The JSON post's request; null when url is not valid or a step throws.
  std::shared_ptr<QVMutableURLRequest> requestForURLAndJsonWithSessionId(
      const std::string& url, std::string json, const std::optional<std::string>& sessionId);
  // The URL-encoded GET; null when json is not a JSON dictionary with at
  // least one entry, the resulting URL is not valid, or a step throws.
  std::shared_ptr<QVMutableURLRequest> urlEncodedRequestForURLAndJsonWithSessionId(
      const std::string& url, const std::string& json, const std::optional<std::string>& sessionId);

  // The current queue's module headers; an absent session identifier is the
  // core's current one.
  void applyModuleSpecificHeadersToRequestWithJsonWithSessionId(
      QVMutableURLRequest& request, const std::string& json,
      const std::optional<std::string>& sessionId);
  void applyModuleSpecificCookiesToRequest(QVMutableURLRequest& request);

  // Let the delegate rewrite the request, then start an upload task with the
  // request's own body, or a data task. A null request fails the post.
  void performUploadTaskWithRequest(std::shared_ptr<QVMutableURLRequest> request);
  void performURLConnectionWithRequest(std::shared_ptr<QVMutableURLRequest> request);

  void urlConnectionCompletionHandlerAndError(const std::optional<QVHttpResponse>& response,
                                              const std::optional<QVHttpError>& error);
  // Clear busy, then tell the delegate about the current queue.
  void flushSucceeded();
  void flushFailed(const std::optional<QVHttpError>& error);
  // Clear busy, then tell the delegate that the current queue's payload can
  // never be posted, and why.
  void flushRejected(const std::string& reason);

  std::shared_ptr<QVConnectionDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<QVConnectionDelegate>& delegate);
  bool isBusy() const { return busy_.load(); }
  void setBusy(bool busy) { busy_.store(busy); }
  // Held weakly: null once nobody else holds the queue.
  std::shared_ptr<QVQueue> currentQueue() const;
  void setCurrentQueue(const std::shared_ptr<QVQueue>& queue);

 private:
  std::shared_ptr<QVMutableURLRequest> preparedRequest(
      std::shared_ptr<QVMutableURLRequest> request);
  void fixedHeaders(QVMutableURLRequest& request) const;
  // The URL-encoded GET of an encoded query; null when the URL it makes is
  // not valid or a step throws.
  std::shared_ptr<QVMutableURLRequest> urlEncodedRequestWithQuery(
      const std::string& url, const std::string& query, const std::string& json,
      const std::optional<std::string>& sessionId);

  std::atomic<bool> busy_{false};
  mutable std::mutex mutex_;  // guards the two weak references
  std::weak_ptr<QVConnectionDelegate> delegate_;
  std::weak_ptr<QVQueue> currentQueue_;
};

}  // namespace qv
