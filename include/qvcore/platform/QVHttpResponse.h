#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvcore/QVExport.h"

namespace qv {

// The status and headers of an HTTP response, as the server sent them. A
// redirect is not followed, so a 3xx is the response itself.
struct QV_EXPORT QVHttpResponse {
  long statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;

  // The first header of that name, compared without regard to case.
  std::optional<std::string> valueForHTTPHeaderField(const std::string& field) const;
};

}  // namespace qv
