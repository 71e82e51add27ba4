#include "QVCollectorPrinter.h"

#include <time.h>

#include <cstdio>
#include <ostream>
#include <sstream>

#include "QVTerminalText.h"

namespace qv::collector {

namespace {

using json = nlohmann::json;

constexpr size_t kQueryShown = 40;
constexpr size_t kTextShown = 4096;

std::string compact(const json& value) {
  std::string text = value.dump(-1, ' ', false, json::error_handler_t::replace);
  if (text.size() > kTextShown) {
    text = text.substr(0, kTextShown) + "... (" + std::to_string(text.size()) + " bytes)";
  }
  return text;
}

// The query cut short: a URL-encoded post carries the whole payload there.
std::string target(const QVCollectorRequest& request) {
  if (request.query.empty()) return request.path;
  if (request.query.size() <= kQueryShown) return request.path + "?" + request.query;
  return request.path + "?" + request.query.substr(0, kQueryShown) + "...";
}

std::string method(const QVCollectorRequest& request) {
  return request.method.empty() ? "?" : request.method;
}

}  // namespace

std::string QVCollectorPrinter::time(int64_t milliseconds) {
  const time_t seconds = static_cast<time_t>(milliseconds / 1000);
  struct tm local {};
  localtime_r(&seconds, &local);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(milliseconds % 1000));
  return text;
}

std::string QVCollectorPrinter::decodedText(const QVCollectorRecord& record) {
  const QVCollectorDecoded& decoded = record.decoded;
  std::string text = decoded.kind;
  if (decoded.encoding != "identity") text += " (" + decoded.encoding + ")";
  text += ", " + std::to_string(decoded.messages) + " messages, " +
          std::to_string(decoded.rawBytes) + " bytes raw, " + std::to_string(decoded.decodedBytes) +
          " decoded";
  return text;
}

std::string QVCollectorPrinter::line(const QVCollectorRecord& record) {
  std::string text = time(record.receivedAt) + "  #" + std::to_string(record.id) + " " +
                     method(record.request) + " " + target(record.request) + "  " +
                     decodedText(record) + "  -> " + std::to_string(record.status);
  if (!record.decoded.problem.empty()) text += "  [" + record.decoded.problem + "]";
  return QVTerminalText::escaped(text);
}

void QVCollectorPrinter::block(std::ostream& terminal, const QVCollectorRecord& record) {
  // Everything in it came from a client; it goes out escaped as one text.
  std::ostringstream out;
  blockText(out, record);
  terminal << QVTerminalText::escaped(out.str(), true);
}

void QVCollectorPrinter::blockText(std::ostream& out, const QVCollectorRecord& record) {
  const QVCollectorRequest& request = record.request;
  out << "#" << record.id << "  " << time(record.receivedAt) << "  " << method(request) << " "
      << request.path << (request.query.empty() ? "" : "?" + request.query) << "  -> "
      << record.status << "\n";
  out << "  decoded: " << decodedText(record) << "\n";
  out << "  check: " << (record.decoded.problem.empty() ? "ok" : record.decoded.problem) << "\n";
  out << "  headers:\n";
  for (const auto& [name, value] : request.headers) out << "    " << name << ": " << value << "\n";
  const std::string* text = record.payloadText();
  if (text) {
    payload(out, json::parse(*text, nullptr, false));
  } else if (!request.body.empty()) {
    rawBody(out, request.body);
  }
  out << "\n";
}

void QVCollectorPrinter::payload(std::ostream& out, const json& value) {
  const auto found = value.is_object() ? value.find("sessions") : value.end();
  if (found != value.end() && found->is_array()) return sessions(out, value);
  if (!value.is_object()) {
    out << "  payload: " << compact(value) << "\n";
    return;
  }
  out << "  fields:\n";
  for (const auto& [key, item] : value.items()) {
    out << "    " << key << " = " << (item.is_string() ? item.get<std::string>() : compact(item))
        << "\n";
  }
}

void QVCollectorPrinter::sessions(std::ostream& out, const json& payload) {
  for (const auto& [key, item] : payload.items()) {
    if (key != "sessions") out << "  " << key << ": " << compact(item) << "\n";
  }
  const json& list = payload.at("sessions");
  out << "  sessions: " << list.size() << "\n";
  for (const json& each : list) session(out, each);
}

void QVCollectorPrinter::session(std::ostream& out, const json& session) {
  if (!session.is_object()) {
    out << "    " << compact(session) << "\n";
    return;
  }
  out << "    session " << compact(session.value("id", json("(no id)")));
  if (session.contains("QVCoreSessionID"))
    out << ", core " << compact(session.at("QVCoreSessionID"));
  const json start = session.value("startTime", json());
  if (start.is_number_integer()) out << ", started " << time(start.get<int64_t>());
  out << "\n";
  if (session.contains("clientEnvironment")) {
    out << "      clientEnvironment: " << compact(session.at("clientEnvironment")) << "\n";
  }
  const json messages = session.value("messages", json::array());
  out << "      messages: " << (messages.is_array() ? messages.size() : 0) << "\n";
  if (!messages.is_array()) return;
  for (const json& message : messages) out << "        " << compact(message) << "\n";
}

void QVCollectorPrinter::rawBody(std::ostream& out, const std::string& body) {
  // Printable ASCII as it is, every other byte as \xNN, so a binary body
  // cannot upset the terminal.
  std::string shown;
  for (size_t i = 0; i < body.size() && i < 512; ++i) {
    const auto byte = static_cast<unsigned char>(body[i]);
    if (byte >= 0x20 && byte < 0x7f) {
      shown += static_cast<char>(byte);
    } else {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\x%02x", byte);
      shown += escape;
    }
  }
  out << "  body (" << body.size() << " bytes): " << shown << (body.size() > 512 ? "..." : "")
      << "\n";
}

void QVCollectorPrinter::summary(std::ostream& out, const QVCollectorStore::Summary& summary) {
  out << "requests: " << summary.requests << "\n"
      << "messages: " << summary.messages << "\n"
      << "bytes on the wire: " << summary.rawBytes << "\n"
      << "bytes after decoding: " << summary.decodedBytes << "\n";
  for (const auto& [module, totals] : summary.modules) {
    out << "module " << QVTerminalText::escaped(module) << ": " << totals.requests << " requests, "
        << totals.messages << " messages; answered 2xx: " << totals.acceptedRequests
        << " requests, " << totals.acceptedMessages << " messages\n";
  }
}

}  // namespace qv::collector
