#include "QVCollectorGate.h"

#include <algorithm>

#include "platform/value/QVText.h"

namespace qv::collector {

namespace {

std::vector<std::string> valuesOf(const QVCollectorRequest::Headers& headers, const char* name) {
  std::vector<std::string> values;
  for (const auto& [key, value] : headers) {
    if (QVText::equalsIgnoringCase(key, name)) values.push_back(value);
  }
  return values;
}

bool isDigits(const std::string& text) {
  return !text.empty() && text.size() <= 18 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isSafeMethod(const std::string& method) {
  return method == "GET" || method == "HEAD" || method == "OPTIONS";
}

}  // namespace

QVCollectorGate::QVCollectorGate(int port, std::vector<std::string> extraNames, int64_t maxBody)
    : port_(port), names_(std::move(extraNames)), maxBody_(maxBody) {
  names_.insert(names_.begin(), {"127.0.0.1", "localhost"});
}

QVCollectorGate::Verdict QVCollectorGate::check(const std::string& method,
                                                const QVCollectorRequest::Headers& headers) const {
  if (Verdict verdict = framing(headers); verdict.status) return verdict;
  const std::vector<std::string> hosts = valuesOf(headers, "Host");
  if (hosts.size() > 1) return {400, "the request names its Host more than once"};
  // Only HTTP/1.0 clients leave Host out, and browsers are not among them.
  if (hosts.size() == 1 && !isThisCollector(hosts[0])) {
    return {421, "Host \"" + hosts[0] + "\" is not this collector"};
  }
  const std::vector<std::string> origins = valuesOf(headers, "Origin");
  if (!isSafeMethod(method) && !origins.empty() &&
      !std::all_of(origins.begin(), origins.end(),
                   [this](const std::string& origin) { return isOwnOrigin(origin); })) {
    return {403, "a write from the web page of origin \"" + origins[0] + "\""};
  }
  return {};
}

QVCollectorGate::Verdict QVCollectorGate::framing(
    const QVCollectorRequest::Headers& headers) const {
  const std::vector<std::string> lengths = valuesOf(headers, "Content-Length");
  if (lengths.size() > 1) return {400, "Content-Length is given more than once"};
  if (lengths.size() == 1 && !isDigits(lengths[0])) {
    return {400, "Content-Length \"" + lengths[0] + "\" is not a number"};
  }
  if (!lengths.empty() && !valuesOf(headers, "Transfer-Encoding").empty()) {
    return {400, "Content-Length and Transfer-Encoding are both given"};
  }
  if (!lengths.empty() && std::stoll(lengths[0]) > maxBody_) {
    return {413,
            "the body is larger than the collector takes (" + std::to_string(maxBody_) + " bytes)"};
  }
  return {};
}

bool QVCollectorGate::isThisCollector(const std::string& host) const {
  const size_t colon = host.rfind(':');
  const bool hasPort = colon != std::string::npos;
  const std::string name = hasPort ? host.substr(0, colon) : host;
  const std::string port = hasPort ? host.substr(colon + 1) : "80";
  if (port != std::to_string(port_)) return false;
  return std::any_of(names_.begin(), names_.end(), [&name](const std::string& each) {
    return QVText::equalsIgnoringCase(each, name);
  });
}

bool QVCollectorGate::isOwnOrigin(const std::string& origin) const {
  constexpr std::string_view kScheme = "http://";
  if (origin.size() <= kScheme.size() ||
      !QVText::equalsIgnoringCase(origin.substr(0, kScheme.size()), "http://")) {
    return false;
  }
  return isThisCollector(origin.substr(kScheme.size()));
}

}  // namespace qv::collector
