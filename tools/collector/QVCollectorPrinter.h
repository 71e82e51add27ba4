#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include <nlohmann/json.hpp>

#include "QVCollectorRecord.h"
#include "QVCollectorStore.h"

namespace qv::collector {

// The collector's text forms: the line printed as each request arrives, the
// block that "dump" prints for a stored request, and the totals. What came
// from a client is escaped for the terminal.
class QVCollectorPrinter {
 public:
  static std::string line(const QVCollectorRecord& record);
  static void block(std::ostream& out, const QVCollectorRecord& record);
  static void summary(std::ostream& out, const QVCollectorStore::Summary& summary);
  // Local time with milliseconds: 2024-05-01 12:00:00.123.
  static std::string time(int64_t millisecondsSince1970);

 private:
  static void blockText(std::ostream& out, const QVCollectorRecord& record);
  static std::string decodedText(const QVCollectorRecord& record);
  static void payload(std::ostream& out, const nlohmann::json& value);
  static void sessions(std::ostream& out, const nlohmann::json& payload);
  static void session(std::ostream& out, const nlohmann::json& session);
  static void rawBody(std::ostream& out, const std::string& body);
};

}  // namespace qv::collector
