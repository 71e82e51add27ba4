#include "QVCollectorRecord.h"

namespace qv::collector {

const std::string* QVCollectorRecord::payloadText() const {
  if (decoded.kind == "json") return decoded.inflated ? &*decoded.inflated : &request.body;
  if (decoded.kind == "urlencoded" && decoded.queryFields) return &*decoded.queryFields;
  return nullptr;
}

}  // namespace qv::collector
