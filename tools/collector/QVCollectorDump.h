#pragma once

#include <iosfwd>

#include "QVCollectorStore.h"

namespace qv::collector {

// What "qvcore-collector dump" prints from a store.
class QVCollectorDump {
 public:
  enum class Format {
    kText,         // a readable block per request, oldest first
    kJson,         // a JSON array of the requests in full, oldest first
    kSummary,      // the totals only
    kSummaryJson,  // the totals as /_qv/api/summary gives them
  };

  static void print(const QVCollectorStore& store, Format format, std::ostream& out);

 private:
  static void json(const QVCollectorStore& store, std::ostream& out);
};

}  // namespace qv::collector
