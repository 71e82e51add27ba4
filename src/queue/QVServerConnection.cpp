#include "qvcore/queue/QVServerConnection.h"

#include <cmath>

#include "model/QVJsonWriter.h"
#include "platform/host/QVSwallowed.h"
#include "platform/value/QVJsonParse.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCookieProvider.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVHttpHeadersProvider.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVHttpSession.h"
#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

namespace {

std::string userAgent() { return QVCore::sharedInstance()->getUserAgentFromBrowser(); }

std::string libraryHeader() { return "Lib/" + QVCore::sharedInstance()->frameworkVersion(); }

double postMessageTimeout() {
  return QVValues::doubleValue(QVConfigService::sharedInstance()->postMessageTimeout());
}

// The text a module's header value is sent as; none for values that have
// no single-line form worth sending.
std::optional<std::string> headerText(const QVValue& value) {
  switch (value.type()) {
    case QVValue::value_t::string:
      return value.get<std::string>();
    case QVValue::value_t::boolean:
      return value.get<bool>() ? "1" : "0";
    case QVValue::value_t::number_integer:
    case QVValue::value_t::number_unsigned:
      return value.dump();
    case QVValue::value_t::number_float:
      // As the payload writes numbers: a whole value without ".0".
      if (!std::isfinite(value.get<double>())) return std::nullopt;
      return QVJsonWriter::numberText(value.get<double>());
    default:
      return std::nullopt;
  }
}

// The payload as a dictionary; discarded when it is not JSON. A nested
// value is written into the query recursively, so text nested deeper than
// any message (a damaged cache file) is refused as a whole here.
QVValue payloadOf(const std::string& json) { return QVJsonParse::withDepthLimit<QVValue>(json); }

// The query string a URL-encoded post carries; none, with the reason in
// problem, when the payload itself rules one out. Such a payload never
// becomes a request, whatever the URL or the server.
std::optional<std::string> urlEncodedQuery(const std::string& json, std::string& problem) {
  try {
    const QVValue payload = payloadOf(json);
    if (payload.is_discarded()) {
      problem = "its payload is not JSON, or is nested too deeply";
    } else if (!payload.is_object()) {
      problem = "its payload is not a JSON dictionary";
    } else if (std::string query = QVCoreExtensions::urlEncodedString(payload); !query.empty()) {
      return query;
    } else {
      problem = "its payload has nothing to encode";
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    problem = "its payload cannot be encoded";
  }
  return std::nullopt;
}

// A request with the settings both kinds of post share.
std::shared_ptr<QVMutableURLRequest> baseRequest(const std::string& url, const char* method) {
  auto request = QVMutableURLRequest::requestWithURL(url);
  if (!request) return nullptr;
  request->setTimeoutInterval(postMessageTimeout());
  request->setHTTPShouldHandleCookies(true);
  request->setHTTPMethod(method);
  return request;
}

}  // namespace

std::shared_ptr<QVServerConnection> QVServerConnection::initWithDelegate(
    const std::shared_ptr<QVConnectionDelegate>& delegate) {
  auto connection = std::make_shared<QVServerConnection>(Token{});
  connection->setDelegate(delegate);
  return connection;
}

void QVServerConnection::postQueueToURL(const std::shared_ptr<QVQueue>& queue,
                                        const std::string& url) {
  try {
    bool idle = false;
    if (!queue || !busy_.compare_exchange_strong(idle, true)) {
      if (auto delegate = this->delegate()) delegate->flushFailedForQueue(queue);
      return;
    }
    setCurrentQueue(queue);
    std::string json = queue->toJson();
    const std::shared_ptr<QVLifecycleObject> module = queue->module();
    if (QVConfigService::sharedInstance()->isURLEncodedForModule(module)) {
      urlEncodeAndPostJSONStringToURLWithSessionId(json, url, queue->currentSessionID());
    } else {
      postJSONStringToURLWithSessionId(std::move(json), url, queue->currentSessionID());
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Deliberately no reset: busy stays set until an outcome arrives.
  }
}

void QVServerConnection::postJSONStringToURLWithSessionId(
    std::string json, const std::string& url, const std::optional<std::string>& sessionId) {
  performUploadTaskWithRequest(requestForURLAndJsonWithSessionId(url, std::move(json), sessionId));
}

void QVServerConnection::urlEncodeAndPostJSONStringToURLWithSessionId(
    const std::string& json, const std::string& url, const std::optional<std::string>& sessionId) {
  std::string problem;
  const std::optional<std::string> query = urlEncodedQuery(json, problem);
  if (!query) {
    flushRejected(problem);
    return;
  }
  performURLConnectionWithRequest(urlEncodedRequestWithQuery(url, *query, json, sessionId));
}

std::shared_ptr<QVMutableURLRequest> QVServerConnection::requestForURLAndJsonWithSessionId(
    const std::string& url, std::string json, const std::optional<std::string>& sessionId) {
  try {
    auto request = baseRequest(url, "POST");
    if (!request) return nullptr;
    // Shared from here on: the bytes are never copied on their way out.
    auto body = std::make_shared<const std::string>(std::move(json));
    request->setValueForHTTPHeaderField("*/*", "Accept");
    request->setValueForHTTPHeaderField("gzip, deflate", "Accept-Encoding");
    request->setValueForHTTPHeaderField("text/json; charset=UTF-8", "Content-Type");
    request->setValueForHTTPHeaderField(std::to_string(body->size()), "Content-Length");
    fixedHeaders(*request);
    applyModuleSpecificHeadersToRequestWithJsonWithSessionId(*request, *body, sessionId);
    applyModuleSpecificCookiesToRequest(*request);
    request->setHTTPBody(std::move(body));
    return request;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return nullptr;
  }
}

std::shared_ptr<QVMutableURLRequest>
QVServerConnection::urlEncodedRequestForURLAndJsonWithSessionId(
    const std::string& url, const std::string& json, const std::optional<std::string>& sessionId) {
  std::string problem;
  const std::optional<std::string> query = urlEncodedQuery(json, problem);
  return query ? urlEncodedRequestWithQuery(url, *query, json, sessionId) : nullptr;
}

std::shared_ptr<QVMutableURLRequest> QVServerConnection::urlEncodedRequestWithQuery(
    const std::string& url, const std::string& query, const std::string& json,
    const std::optional<std::string>& sessionId) {
  try {
    auto request = baseRequest(url + "?" + query, "GET");
    if (!request) return nullptr;
    fixedHeaders(*request);
    applyModuleSpecificHeadersToRequestWithJsonWithSessionId(*request, json, sessionId);
    applyModuleSpecificCookiesToRequest(*request);
    return request;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return nullptr;
  }
}

void QVServerConnection::fixedHeaders(QVMutableURLRequest& request) const {
  request.setValueForHTTPHeaderField(userAgent(), "User-Agent");
  request.setValueForHTTPHeaderField(libraryHeader(), "X-QVCORE");
}

void QVServerConnection::applyModuleSpecificHeadersToRequestWithJsonWithSessionId(
    QVMutableURLRequest& request, const std::string& json,
    const std::optional<std::string>& sessionId) {
  const std::shared_ptr<QVQueue> queue = currentQueue();
  const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
  auto* provider = dynamic_cast<QVHttpHeadersProvider*>(module.get());
  if (!provider) return;
  const std::string id = sessionId ? *sessionId : QVCore::sharedInstance()->currentSessionID();
  const QVValue headers = provider->httpHeadersForSessionIdAndJson(id, json);
  if (!headers.is_object()) return;
  for (auto it = headers.begin(); it != headers.end(); ++it) {
    if (std::optional<std::string> text = headerText(it.value())) {
      request.setValueForHTTPHeaderField(*text, it.key());
    }
  }
}

void QVServerConnection::applyModuleSpecificCookiesToRequest(QVMutableURLRequest& request) {
  const std::shared_ptr<QVQueue> queue = currentQueue();
  const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
  if (auto* provider = dynamic_cast<QVCookieProvider*>(module.get())) {
    provider->addCookiesToRequest(request);
  }
}

std::shared_ptr<QVMutableURLRequest> QVServerConnection::preparedRequest(
    std::shared_ptr<QVMutableURLRequest> request) {
  const std::shared_ptr<QVConnectionDelegate> delegate = this->delegate();
  if (!delegate) return request;
  auto replacement = delegate->beforeFlushingRequestForQueue(request, currentQueue());
  return replacement ? replacement : request;
}

void QVServerConnection::performUploadTaskWithRequest(
    std::shared_ptr<QVMutableURLRequest> request) {
  if (!request) {
    flushFailed(std::nullopt);
    return;
  }
  request = preparedRequest(std::move(request));
  // The session holds the connection until the outcome is reported.
  QVHttpSession::shared()->uploadTaskWithRequest(
      *request, request->HTTPBody(),
      [self = shared_from_this()](std::optional<QVHttpResponse> response,
                                  std::optional<QVHttpError> error) {
        self->urlConnectionCompletionHandlerAndError(response, error);
      });
}

void QVServerConnection::performURLConnectionWithRequest(
    std::shared_ptr<QVMutableURLRequest> request) {
  if (!request) {
    flushFailed(std::nullopt);
    return;
  }
  request = preparedRequest(std::move(request));
  QVHttpSession::shared()->dataTaskWithRequest(
      *request, [self = shared_from_this()](std::optional<QVHttpResponse> response,
                                            std::optional<QVHttpError> error) {
        self->urlConnectionCompletionHandlerAndError(response, error);
      });
}

void QVServerConnection::urlConnectionCompletionHandlerAndError(
    const std::optional<QVHttpResponse>& response, const std::optional<QVHttpError>& error) {
  if (response && !error && response->statusCode >= 200 && response->statusCode < 400) {
    flushSucceeded();
  } else {
    flushFailed(error);
  }
}

void QVServerConnection::flushSucceeded() {
  // Read before busy is cleared: a post started the moment after replaces it.
  const std::shared_ptr<QVQueue> queue = currentQueue();
  busy_.store(false);
  if (auto delegate = this->delegate()) delegate->flushCompletedForQueue(queue);
}

void QVServerConnection::flushFailed(const std::optional<QVHttpError>&) {
  const std::shared_ptr<QVQueue> queue = currentQueue();
  busy_.store(false);
  if (auto delegate = this->delegate()) delegate->flushFailedForQueue(queue);
}

void QVServerConnection::flushRejected(const std::string& reason) {
  const std::shared_ptr<QVQueue> queue = currentQueue();
  busy_.store(false);
  if (auto delegate = this->delegate()) delegate->flushRejectedForQueue(queue, reason);
}

std::shared_ptr<QVConnectionDelegate> QVServerConnection::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void QVServerConnection::setDelegate(const std::shared_ptr<QVConnectionDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

std::shared_ptr<QVQueue> QVServerConnection::currentQueue() const {
  std::lock_guard lock(mutex_);
  return currentQueue_.lock();
}

void QVServerConnection::setCurrentQueue(const std::shared_ptr<QVQueue>& queue) {
  std::lock_guard lock(mutex_);
  currentQueue_ = queue;
}

}  // namespace qv
