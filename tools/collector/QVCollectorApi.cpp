#include "QVCollectorApi.h"

#include <charconv>

#include "QVCollectorPage.h"
#include "QVCollectorQuery.h"
#include "QVCollectorRecordJson.h"

namespace qv::collector {

namespace {

constexpr std::string_view kRoot = "/_qv";
constexpr std::string_view kRequests = "/_qv/api/requests";

std::string text(const QVValue& value) {
  return value.dump(-1, ' ', false, QVValue::error_handler_t::replace);
}

}  // namespace

bool QVCollectorApi::owns(std::string_view path) {
  return path == kRoot || path.substr(0, kRoot.size() + 1) == "/_qv/";
}

QVCollectorApi::Reply QVCollectorApi::get(std::string_view path, std::string_view query) const {
  if (path == "/_qv" || path == "/_qv/" || path == "/_qv/index.html") {
    return {200, "text/html; charset=utf-8", QVCollectorPage::html()};
  }
  if (path == kRequests) return list(query);
  if (path.substr(0, kRequests.size() + 1) == "/_qv/api/requests/") {
    return request(path.substr(kRequests.size() + 1));
  }
  if (path == "/_qv/api/summary") return summary();
  return notFound("no such page");
}

QVCollectorApi::Reply QVCollectorApi::list(std::string_view query) const {
  int64_t limit = kDefaultListLength;
  for (const auto& [key, value] : QVCollectorQuery::pairs(query)) {
    if (key == "limit") limit = number(value).value_or(limit);
  }
  QVValue list = QVValue::array();
  for (const QVCollectorRecord& record : store_.recent(limit)) {
    list.push_back(QVCollectorRecordJson::brief(record));
  }
  return json(200, text(list));
}

QVCollectorApi::Reply QVCollectorApi::request(std::string_view rest) const {
  // "<id>", "<id>/body" (as received) or "<id>/decoded" (inflated).
  const size_t slash = rest.find('/');
  const std::optional<int64_t> id = number(rest.substr(0, slash));
  const std::string_view part = slash == std::string_view::npos ? "" : rest.substr(slash + 1);
  if (!id || (slash != std::string_view::npos && part != "body" && part != "decoded")) {
    return notFound("no such page");
  }
  const std::optional<QVCollectorRecord> record = store_.find(*id);
  if (!record) return notFound("no request " + std::to_string(*id));
  if (part.empty()) return json(200, QVCollectorRecordJson::full(*record));
  const bool inflated = part == "decoded" && record->decoded.inflated;
  return {200, "application/octet-stream",
          inflated ? *record->decoded.inflated : record->request.body};
}

QVCollectorApi::Reply QVCollectorApi::summary() const {
  return json(200, text(QVCollectorRecordJson::summary(store_.summary())));
}

QVCollectorApi::Reply QVCollectorApi::json(int status, std::string body) {
  return {status, "application/json", std::move(body)};
}

QVCollectorApi::Reply QVCollectorApi::notFound(const std::string& what) {
  return json(404, text(QVValue{{"error", what}}));
}

std::optional<int64_t> QVCollectorApi::number(std::string_view text) {
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace qv::collector
