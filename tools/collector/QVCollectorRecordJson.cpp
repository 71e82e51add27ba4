#include "QVCollectorRecordJson.h"

#include <string_view>

namespace qv::collector {

namespace {

std::string text(const QVValue& value) {
  return value.dump(-1, ' ', false, QVValue::error_handler_t::replace);
}

// Valid JSON text that may start with a byte order mark, which the JSON
// reader skips but which would break the text it is copied into.
std::string_view withoutMark(std::string_view json) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  if (json.substr(0, kMark.size()) == kMark) json.remove_prefix(kMark.size());
  return json;
}

}  // namespace

QVValue QVCollectorRecordJson::brief(const QVCollectorRecord& record) {
  const QVCollectorDecoded& decoded = record.decoded;
  return QVValue{{"id", record.id},
                 {"receivedAt", record.receivedAt},
                 {"method", record.request.method},
                 {"path", record.request.path},
                 {"query", record.request.query},
                 {"status", record.status},
                 {"encoding", decoded.encoding},
                 {"kind", decoded.kind},
                 {"messages", decoded.messages},
                 {"rawBytes", decoded.rawBytes},
                 {"decodedBytes", decoded.decodedBytes},
                 {"ok", decoded.problem.empty()},
                 {"problem", decoded.problem}};
}

std::string QVCollectorRecordJson::full(const QVCollectorRecord& record) {
  QVValue object = brief(record);
  QVValue headers = QVValue::array();
  for (const auto& [name, value] : record.request.headers) headers.push_back({name, value});
  object["headers"] = std::move(headers);
  object["bodyBytes"] = record.request.body.size();
  object["inflated"] = record.decoded.inflated.has_value();
  std::string json = text(object);
  json.pop_back();  // the closing brace; the spliced members follow
  const auto& fields = record.decoded.queryFields;
  json += ",\"queryFields\":";
  json += fields ? withoutMark(*fields) : "null";
  const std::string* payload = record.payloadText();
  json += ",\"payload\":";
  json += payload ? withoutMark(*payload) : "null";
  json += '}';
  return json;
}

QVValue QVCollectorRecordJson::totals(const QVCollectorStore::Totals& totals) {
  return QVValue{{"requests", totals.requests},
                 {"messages", totals.messages},
                 {"rawBytes", totals.rawBytes},
                 {"decodedBytes", totals.decodedBytes},
                 {"acceptedRequests", totals.acceptedRequests},
                 {"acceptedMessages", totals.acceptedMessages}};
}

QVValue QVCollectorRecordJson::summary(const QVCollectorStore::Summary& summary) {
  QVValue object = totals(summary);
  QVValue modules = QVValue::object();
  for (const auto& [module, each] : summary.modules) modules[module] = totals(each);
  object["modules"] = std::move(modules);
  return object;
}

}  // namespace qv::collector
