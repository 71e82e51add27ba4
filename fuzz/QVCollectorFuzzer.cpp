// Feeds arbitrary requests to the collector's decoder and to the text forms
// of the record it makes. The input is read like a request on the wire: a
// request line "METHOD TARGET VERSION", header lines "Name: value" up to an
// empty line, then the body (the rest, whatever its length). Besides not
// crashing, hanging or leaking, the record must keep its own promises: the
// byte counts match the request, the query's fields are JSON, and the
// record's full JSON form, which the page parses, is JSON.

#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "QVCollectorDecoder.h"
#include "QVCollectorPrinter.h"
#include "QVCollectorRecord.h"
#include "QVCollectorRecordJson.h"

namespace {

using qv::collector::QVCollectorDecoded;
using qv::collector::QVCollectorRecord;
using qv::collector::QVCollectorRequest;

// The next line without its end ("\n" or "\r\n"); consumes it from text.
std::string_view takeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  std::string_view line = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

// The request as the collector's server splits it: the target at its first
// "?", the headers in the order sent.
QVCollectorRequest requestFrom(std::string_view text) {
  QVCollectorRequest request;
  const std::string_view line = takeLine(text);
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  request.method = line.substr(0, first);
  std::string_view target;
  if (first != std::string_view::npos) {
    target = last > first ? line.substr(first + 1, last - first - 1) : line.substr(first + 1);
  }
  const size_t question = target.find('?');
  request.path = target.substr(0, question);
  if (question != std::string_view::npos) request.query = target.substr(question + 1);
  while (!text.empty()) {
    const std::string_view header = takeLine(text);
    if (header.empty()) break;
    const size_t colon = header.find(':');
    std::string_view value = colon == std::string_view::npos ? "" : header.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
      value.remove_prefix(1);
    }
    request.headers.emplace_back(header.substr(0, colon), value);
  }
  request.body = text;
  return request;
}

bool isJson(const std::string& text) { return nlohmann::json::accept(text); }

void checkDecoded(const QVCollectorRequest& request, const QVCollectorDecoded& decoded) {
  static const std::set<std::string> kKinds = {"json", "urlencoded", "empty", "bytes"};
  if (!kKinds.contains(decoded.kind)) __builtin_trap();
  if (!request.body.empty()) {
    if (decoded.rawBytes != static_cast<int64_t>(request.body.size())) __builtin_trap();
    const std::string& plain = decoded.inflated ? *decoded.inflated : request.body;
    if (decoded.decodedBytes != static_cast<int64_t>(plain.size())) __builtin_trap();
  } else if (!request.query.empty()) {
    if (decoded.kind != "urlencoded" || !decoded.queryFields) __builtin_trap();
    if (decoded.rawBytes != static_cast<int64_t>(request.query.size())) __builtin_trap();
  } else if (decoded.problem.empty()) {
    __builtin_trap();  // nothing came, which is never a fitting payload
  }
  if (decoded.queryFields && !isJson(*decoded.queryFields)) __builtin_trap();
  if (decoded.messages < 0) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  QVCollectorRecord record;
  record.request = requestFrom(std::string_view(reinterpret_cast<const char*>(data), size));
  record.decoded = qv::collector::QVCollectorDecoder::decode(record.request);
  record.status = 200;
  checkDecoded(record.request, record.decoded);

  using qv::collector::QVCollectorPrinter;
  using qv::collector::QVCollectorRecordJson;
  QVCollectorPrinter::line(record);
  std::ostringstream block;
  QVCollectorPrinter::block(block, record);
  QVCollectorRecordJson::brief(record).dump(-1, ' ', false,
                                            nlohmann::json::error_handler_t::replace);
  if (!isJson(QVCollectorRecordJson::full(record))) __builtin_trap();
  return 0;
}
