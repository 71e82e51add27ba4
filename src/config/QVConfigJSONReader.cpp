#include "config/QVConfigJSONReader.h"

#include "platform/host/QVSwallowed.h"
#include "platform/value/QVJsonParse.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVPropertyList.h"

namespace qv {

std::optional<QVValue> QVConfigJSONReader::jsonWithData(std::string_view bytes) {
  if (bytes.size() > QVPropertyList::kMaxFileBytes) return std::nullopt;
  // The parser takes a NUL byte for the end of the text, which would pass a
  // file with anything after it; JSON text never holds one.
  if (bytes.find('\0') != std::string_view::npos) return std::nullopt;
  try {
    // Parsed into the sorted dictionary first: the ordered one looks keys up
    // by a linear scan, which would make a file of many keys quadratic. Key
    // order carries no meaning in configuration.
    nlohmann::json parsed = QVJsonParse::withDepthLimit<nlohmann::json>(bytes);
    if (!parsed.is_object() && !parsed.is_array()) return std::nullopt;
    return QVValue(parsed);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return std::nullopt;
  }
}

std::optional<QVValue> QVConfigJSONReader::jsonWithContentsOfFile(const std::string& path) {
  std::optional<std::string> bytes =
      QVFileSystem::contentsAtPath(path, QVPropertyList::kMaxFileBytes);
  if (!bytes) return std::nullopt;
  return jsonWithData(*bytes);
}

}  // namespace qv
