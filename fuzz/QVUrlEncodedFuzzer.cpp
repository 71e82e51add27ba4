// Feeds arbitrary payload text to the URL-encoded post, which parses a
// queued message's JSON back into a dictionary and sends it as the query of
// a GET. Besides not crashing, hanging or leaking, the request must carry
// the dictionary faithfully: read back the way the collector reads queries,
// every key comes back in order with its string values exactly as they
// were, and a flat dictionary of plain keys always makes a valid request.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "QVCollectorQuery.h"
#include "qvcore/platform/QVValue.h"
#include "qvcore/queue/QVServerConnection.h"

namespace {

using qv::QVValue;

constexpr std::string_view kURL = "http://127.0.0.1:9/collect";

// Keys the query carries as they are: the library never escapes keys, so
// only these can be compared after a round trip.
bool isPlainKey(const std::string& key) {
  if (key.empty()) return false;
  for (unsigned char c : key) {
    if (!std::isalnum(c) && c != '-' && c != '.' && c != '_' && c != '~') return false;
  }
  return true;
}

// A flat dictionary of plain keys and values whose text needs no escaping
// beyond what the encoder does: its query is always a valid URL.
bool isPlainDictionary(const QVValue& payload) {
  if (!payload.is_object() || payload.empty()) return false;
  for (auto it = payload.begin(); it != payload.end(); ++it) {
    if (!isPlainKey(it.key())) return false;
    const QVValue& value = it.value();
    if (!value.is_string() && !value.is_number() && !value.is_boolean()) return false;
  }
  return true;
}

// The text the collector must read back for a value. A float with a whole
// value is written as an integer, and an exponent without "+".
std::string expectedText(const QVValue& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  if (value.is_number_float()) {
    const double d = value.get<double>();
    if (std::trunc(d) == d && std::fabs(d) < 9223372036854775808.0) {
      return std::to_string(static_cast<int64_t>(d));
    }
    std::string text = value.dump();
    std::erase(text, '+');
    return text;
  }
  return value.dump();
}

void checkQuery(const QVValue& payload, const std::string& query) {
  const auto pairs = qv::collector::QVCollectorQuery::pairs(query);
  if (pairs.size() != payload.size()) __builtin_trap();
  size_t i = 0;
  for (auto it = payload.begin(); it != payload.end(); ++it, ++i) {
    if (pairs[i].first != it.key()) __builtin_trap();
    if (pairs[i].second != expectedText(it.value())) __builtin_trap();
  }
}

void checkRequest(const QVValue& payload, const qv::QVMutableURLRequest& request) {
  if (request.HTTPMethod() != "GET" || request.HTTPBody()) __builtin_trap();
  const std::string& url = request.URL();
  const std::string prefix = std::string(kURL) + "?";
  if (url.size() <= prefix.size() || url.compare(0, prefix.size(), prefix) != 0) __builtin_trap();
  if (request.valueForHTTPHeaderField("Content-Type")) __builtin_trap();
  if (isPlainDictionary(payload)) checkQuery(payload, url.substr(prefix.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto connection = qv::QVServerConnection::initWithDelegate(nullptr);
  const std::string json(reinterpret_cast<const char*>(data), size);
  const auto request =
      connection->urlEncodedRequestForURLAndJsonWithSessionId(std::string(kURL), json, "fuzz");
  const QVValue payload = QVValue::parse(json, nullptr, false);
  if (request) {
    if (!payload.is_object() || payload.empty()) __builtin_trap();
    checkRequest(payload, *request);
  } else if (isPlainDictionary(payload)) {
    __builtin_trap();  // such a dictionary always makes a valid URL
  }
  return 0;
}
