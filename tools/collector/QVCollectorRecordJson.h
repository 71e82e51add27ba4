#pragma once

#include <string>

#include "QVCollectorRecord.h"
#include "QVCollectorStore.h"
#include "qvcore/platform/QVValue.h"

namespace qv::collector {

// The JSON forms of records that the web page and "dump --json" read.
class QVCollectorRecordJson {
 public:
  // One line of the list: no headers, no bodies.
  static QVValue brief(const QVCollectorRecord& record);
  // Everything, with the decoded payload under "payload" (null when there
  // is none). The payload is copied in as the text that arrived, so a body
  // of tens of megabytes is not parsed again and keeps its key order.
  static std::string full(const QVCollectorRecord& record);
  // The totals, and under "modules" the same per module (path).
  static QVValue summary(const QVCollectorStore::Summary& summary);

 private:
  static QVValue totals(const QVCollectorStore::Totals& totals);
};

}  // namespace qv::collector
