#include "QVCollectorRequest.h"

#include "platform/value/QVText.h"

namespace qv::collector {

std::optional<std::string> QVCollectorRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (QVText::equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

}  // namespace qv::collector
