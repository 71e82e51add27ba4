#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::collector {

// One request as it came in: the request line split at the first "?", the
// headers as the client sent them and the body untouched.
struct QVCollectorRequest {
  using Headers = std::vector<std::pair<std::string, std::string>>;

  std::string method;
  std::string path;   // still percent-encoded, as in the request line
  std::string query;  // everything after the first "?", as sent
  Headers headers;
  std::string body;

  // The first header of that name, compared without regard to case.
  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace qv::collector
