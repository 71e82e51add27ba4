#include "QVCollectorDecoder.h"

#include <algorithm>
#include <cctype>

#include "QVCollectorInflater.h"
#include "QVCollectorJsonScan.h"
#include "QVCollectorPayloadCheck.h"
#include "QVCollectorQuery.h"

#include "platform/value/QVText.h"

namespace qv::collector {

namespace {

std::string trimmedLower(std::string_view blanked) {
  std::string text(QVText::trimmed(blanked, " \t\n\v\f\r"));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

QVCollectorDecoded QVCollectorDecoder::decode(const QVCollectorRequest& request,
                                              size_t maxInflated) {
  QVCollectorDecoded decoded;
  if (!request.query.empty()) {
    decoded.queryFields = QVCollectorQuery::dictionary(request.query)
                              .dump(-1, ' ', false, QVValue::error_handler_t::replace);
  }
  if (!request.body.empty()) {
    decodeBody(request, maxInflated, decoded);
  } else if (!request.query.empty()) {
    decodeQuery(request, decoded);
  } else {
    decoded.problem = "request has neither a body nor a query";
  }
  return decoded;
}

void QVCollectorDecoder::decodeBody(const QVCollectorRequest& request, size_t maxInflated,
                                    QVCollectorDecoded& decoded) {
  decoded.encoding = encodingOf(request);
  decoded.rawBytes = static_cast<int64_t>(request.body.size());
  decoded.decodedBytes = decoded.rawBytes;
  decoded.kind = "bytes";
  if (decoded.encoding == "identity") return readJson(request.body, decoded);
  if (decoded.encoding != "gzip" && decoded.encoding != "deflate") {
    decoded.problem = "content encoding \"" + decoded.encoding + "\" is not supported";
    return;
  }
  const auto format = decoded.encoding == "gzip" ? QVCollectorInflater::Format::kGzip
                                                 : QVCollectorInflater::Format::kDeflate;
  QVCollectorInflater::Result inflated =
      QVCollectorInflater::inflate(request.body, format, maxInflated);
  if (!inflated.bytes) {
    decoded.problem = inflated.problem;
    decoded.tooLarge = inflated.tooLarge;
    return;
  }
  decoded.inflated = std::move(inflated.bytes);
  decoded.decodedBytes = static_cast<int64_t>(decoded.inflated->size());
  readJson(*decoded.inflated, decoded);
}

void QVCollectorDecoder::decodeQuery(const QVCollectorRequest& request,
                                     QVCollectorDecoded& decoded) {
  decoded.kind = "urlencoded";
  decoded.rawBytes = static_cast<int64_t>(request.query.size());
  decoded.decodedBytes = static_cast<int64_t>(decoded.queryFields->size());
  const nlohmann::json fields = QVCollectorQuery::dictionary(request.query);
  QVCollectorPayloadCheck::Result check;
  if (fields.contains("sessions") || fields.contains("messageVersion") ||
      fields.contains("serialNumber")) {
    check = QVCollectorPayloadCheck::payload(fields);
  } else if (fields.contains("offset")) {
    check = QVCollectorPayloadCheck::message(fields);
  } else {
    check.problems.push_back("query holds neither a payload (sessions) nor a message (offset)");
  }
  decoded.messages = check.messages;
  decoded.problem = check.summary();
}

void QVCollectorDecoder::readJson(const std::string& text, QVCollectorDecoded& decoded) {
  if (!QVCollectorJsonScan::withinLimit(text)) {
    decoded.problem =
        "body nests deeper than " + std::to_string(QVCollectorJsonScan::kLimit) + " levels";
    return;
  }
  // The JSON reader takes a NUL byte for the end of the text and would pass
  // whatever follows it; JSON text never holds one.
  if (const size_t nul = text.find('\0'); nul != std::string::npos) {
    decoded.problem = "body is not JSON (at byte " + std::to_string(nul + 1) + ")";
    return;
  }
  nlohmann::json payload;
  try {
    payload = nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& error) {
    decoded.problem = "body is not JSON (at byte " + std::to_string(error.byte) + ")";
    return;
  } catch (const nlohmann::json::exception&) {
    // Well-formed but not representable, such as a number beyond a double.
    decoded.problem = "body is not JSON (a number out of range)";
    return;
  }
  decoded.kind = "json";
  const QVCollectorPayloadCheck::Result check = QVCollectorPayloadCheck::payload(payload);
  decoded.messages = check.messages;
  decoded.problem = check.summary();
}

std::string QVCollectorDecoder::encodingOf(const QVCollectorRequest& request) {
  const std::string named = trimmedLower(request.header("Content-Encoding").value_or(""));
  if (named.empty() || named == "identity") return "identity";
  if (named == "x-gzip") return "gzip";
  return named;
}

}  // namespace qv::collector
