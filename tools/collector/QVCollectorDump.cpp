#include "QVCollectorDump.h"

#include <ostream>

#include "QVCollectorPrinter.h"
#include "QVCollectorRecordJson.h"

namespace qv::collector {

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
                 .dump(-1, ' ', false, QVValue::error_handler_t::replace)
          << "\n";
      break;
  }
}

void QVCollectorDump::json(const QVCollectorStore& store, std::ostream& out) {
  // Written record by record, so the whole file never sits in memory as one text.
  bool first = true;
  out << "[";
  store.forEach([&](const QVCollectorRecord& record) {
    out << (first ? "\n" : ",\n") << QVCollectorRecordJson::full(record);
    first = false;
  });
  out << "\n]\n";
}

}  // namespace qv::collector
