#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qvcore/platform/QVValue.h"

namespace qv {

// Reads the JSON files of a settings bundle. The rules are those of the
// platform's JSON reader with default options: the top level must be an
// object or an array (a bare number, string or null is malformed), the text
// must be UTF-8, and anything malformed gives none. Deeper nesting than
// QVPropertyList::kMaxNestingDepth and files larger than
// QVPropertyList::kMaxFileBytes count as malformed too.
class QVConfigJSONReader {
 public:
  static std::optional<QVValue> jsonWithData(std::string_view bytes);
  static std::optional<QVValue> jsonWithContentsOfFile(const std::string& path);
};

}  // namespace qv
