#include "qvcore/platform/QVHttpResponse.h"

#include "platform/value/QVText.h"

namespace qv {

std::optional<std::string> QVHttpResponse::valueForHTTPHeaderField(const std::string& field) const {
  for (const auto& [name, value] : headers) {
    if (QVText::equalsIgnoringCase(name, field)) return value;
  }
  return std::nullopt;
}

}  // namespace qv
