#pragma once

#include <string>

namespace qv::collector {

// The collector's web page: one self-contained HTML document (inline style
// and script, nothing fetched from elsewhere) that lists the stored requests
// from /_qv/api/requests and opens the one named in the address: #<id> or
// ?id=<id>.
class QVCollectorPage {
 public:
  static const std::string& html();
};

}  // namespace qv::collector
