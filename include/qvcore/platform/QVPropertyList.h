#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Property lists (XML and binary) as dynamic values. Readers accept both
// forms and answer none for anything that is not a well-formed property
// list (of the expected shape); they never throw.
//
// Mapping of property-list types: dictionaries, arrays, strings and booleans
// map to their JSON counterparts; integers are signed 64-bit (libplist hands
// negative ones back as unsigned bits, which are reinterpreted); reals are
// doubles; dates become ISO 8601 text in UTC ("2001-01-01T00:00:00Z",
// fractions of a second kept as ".ffffff"), data becomes Base64 text, as the
// XML form writes them; keyed-archive UIDs become unsigned numbers.
class QV_EXPORT QVPropertyList {
 public:
  enum class Format { kXML, kBinary };

  // Configuration files are small; anything larger is refused unread.
  static constexpr std::size_t kMaxFileBytes = 8u * 1024u * 1024u;
  // Deeper nesting is refused, so that no reader recurses without bound.
  static constexpr int kMaxNestingDepth = 256;

  // The value at the top level, whatever its type.
  static std::optional<QVValue> propertyListWithContentsOfFile(const std::string& path);
  static std::optional<QVValue> propertyListWithData(std::string_view bytes);
  // As above, and none when the top level is not a dictionary.
  static std::optional<QVValue> dictionaryWithContentsOfFile(const std::string& path);
  static std::optional<QVValue> dictionaryWithData(std::string_view bytes);

  // The property-list form of a dictionary; none when dict is not a
  // dictionary or holds a value that property lists cannot hold (null).
  static std::optional<std::string> dataWithDictionary(const QVValue& dict, Format format);
  // Writes atomically: a temporary file in the same folder, then a rename.
  static bool writeDictionaryToFile(const QVValue& dict, const std::string& path, Format format);
};

}  // namespace qv
