#include "qvcore/core/QVLedgerSnapshot.h"

#include <numeric>

namespace qv {

const char* dropReasonName(QVDropReason reason) {
  switch (reason) {
    case QVDropReason::kCacheWriteFailed:
      return "cacheWriteFailed";
    case QVDropReason::kCachingOff:
      return "cachingOff";
    case QVDropReason::kCacheFileUnreadable:
      return "cacheFileUnreadable";
    case QVDropReason::kUnknownModule:
      return "unknownModule";
    case QVDropReason::kRequestNotBuildable:
      return "requestNotBuildable";
    case QVDropReason::kInvalidMessage:
      return "invalidMessage";
    case QVDropReason::kCount:
      break;
  }
  return "unknown";
}

uint64_t QVLedgerCounts::droppedTotal() const {
  return std::accumulate(dropped.begin(), dropped.end(), uint64_t{0});
}

bool QVLedgerCounts::balances() const {
  return accepted + recovered == sent + cached + droppedTotal() + queued + inFlight;
}

QVValue QVLedgerCounts::jsonValue() const {
  QVValue drops = QVValue::object();
  for (std::size_t i = 0; i < dropped.size(); ++i) {
    drops[dropReasonName(static_cast<QVDropReason>(i))] = dropped[i];
  }
  QVValue value = QVValue::object();
  value["accepted"] = accepted;
  value["refused"] = refused;
  value["sent"] = sent;
  value["failed"] = failed;
  value["cached"] = cached;
  value["recovered"] = recovered;
  value["dropped"] = std::move(drops);
  value["queued"] = queued;
  value["inFlight"] = inFlight;
  value["balanced"] = balances();
  return value;
}

bool QVLedgerSnapshot::balances() const {
  for (const auto& [name, counts] : modules) {
    if (!counts.balances()) return false;
  }
  return true;
}

QVValue QVLedgerSnapshot::jsonValue() const {
  QVValue value = QVValue::object();
  for (const auto& [name, counts] : modules) value[name] = counts.jsonValue();
  return value;
}

std::string QVLedgerSnapshot::toJson() const {
  // A module name is whatever a caller posted under, so it may not be UTF-8.
  return jsonValue().dump(-1, ' ', false, QVValue::error_handler_t::replace);
}

}  // namespace qv
