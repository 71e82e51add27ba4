#include "QVCollectorDump.h"

#include <algorithm>
#include <ostream>

#include "QVCollectorPrinter.h"
#include "QVCollectorRecordJson.h"

namespace qv::collector {

namespace {

// JSON text keeps DEL, the C1 controls and any other non-ASCII character
// as raw bytes, which a terminal may obey; written with \u escapes instead
// it is the same JSON.
std::string terminalSafe(std::string json) {
  const bool plain = std::all_of(json.begin(), json.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x7f;
  });
  if (plain) return json;
  const QVValue value = QVValue::parse(json, nullptr, false);
  return value.is_discarded() ? json : value.dump(-1, ' ', true, QVValue::error_handler_t::replace);
}

}  // namespace

void QVCollectorDump::print(const QVCollectorStore& store, Format format, std::ostream& out) {
  switch (format) {
    case Format::kText:
      store.forEach(
          [&out](const QVCollectorRecord& record) { QVCollectorPrinter::block(out, record); });
      break;
    case Format::kJson:
      json(store, out);
      break;
    case Format::kSummary:
      QVCollectorPrinter::summary(out, store.summary());
      break;
    case Format::kSummaryJson:
      out << QVCollectorRecordJson::summary(store.summary())
                 .dump(-1, ' ', true, QVValue::error_handler_t::replace)
          << "\n";
      break;
  }
}

void QVCollectorDump::json(const QVCollectorStore& store, std::ostream& out) {
  // Written record by record, so the whole file never sits in memory as one text.
  bool first = true;
  out << "[";
  store.forEach([&](const QVCollectorRecord& record) {
    out << (first ? "\n" : ",\n") << terminalSafe(QVCollectorRecordJson::full(record));
    first = false;
  });
  out << "\n]\n";
}

}  // namespace qv::collector
