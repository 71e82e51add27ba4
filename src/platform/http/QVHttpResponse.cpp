#include "qvcore/platform/QVHttpResponse.h"

#include <strings.h>

namespace qv {

std::optional<std::string> QVHttpResponse::valueForHTTPHeaderField(const std::string& field) const {
  for (const auto& [name, value] : headers) {
    if (name.size() == field.size() && ::strncasecmp(name.data(), field.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace qv
