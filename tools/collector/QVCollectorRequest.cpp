#include "QVCollectorRequest.h"

#include <strings.h>

namespace qv::collector {

std::optional<std::string> QVCollectorRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace qv::collector
