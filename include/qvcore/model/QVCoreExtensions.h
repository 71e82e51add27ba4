#pragma once

#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The two text forms of a dictionary: JSON, the writer of every payload and
// cached queue, and the query string of URL-encoded posts. Neither throws;
// failure is the empty string.
class QV_EXPORT QVCoreExtensions {
 public:
  // Compact JSON text of dict, keys in the dictionary's own order. Empty when
  // dict is not a dictionary or holds anything JSON cannot carry: binary
  // values, NaN or infinite numbers, text that is not UTF-8.
  static std::string toJson(const QVValue& dict);
  // False when value holds, at any depth, what JSON text cannot carry
  // faithfully (dump() would write NaN and infinity as null and binary
  // values as objects); text that is not UTF-8 is the writer's to refuse.
  static bool isJsonCapable(const QVValue& value);

  // key=value pairs joined by "&", in the dictionary's order. Keys are used
  // as they are. String values are percent-encoded outside the RFC 3986
  // query characters, and then "&" becomes "%26" and, except under the key
  // "ul", "/" becomes "%2F". Other values are written unescaped in their
  // text form: numbers in decimal, booleans as 1 or 0, null as <null>,
  // arrays and dictionaries as compact JSON. Empty for an empty dictionary
  // or a value that is not a dictionary.
  static std::string urlEncodedString(const QVValue& dict);
};

}  // namespace qv
