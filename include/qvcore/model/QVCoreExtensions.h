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
  // Compact JSON text of dict, keys in the dictionary's own order. Each
  // sequence of text that is not UTF-8 becomes U+FFFD; a floating-point
  // number with a whole value is written as an integer ("2", -0.0 as "0"),
  // others in the shortest text that reads back exactly. Empty when dict is
  // not a dictionary or holds anything JSON cannot carry: binary values,
  // NaN or infinite numbers.
  static std::string toJson(const QVValue& dict);

  // key=value pairs joined by "&", in the dictionary's order. Keys are used
  // as they are. String values are percent-encoded outside the RFC 3986
  // query characters, and then "&" becomes "%26" and, except under the key
  // "ul", "/" becomes "%2F". Numbers are written as they are: integers in
  // decimal, floats as toJson() writes them but with no "+" in an exponent
  // ("1e300", which a form reader cannot take for "1e 300"; "nan", "inf",
  // "-inf" for the non-finite), booleans as 1 or 0. Arrays, dictionaries
  // and null become their compact JSON text (null is "null"; NaN and
  // infinity inside are null), escaped as a string under the same key and
  // "+" as "%2B". Empty for an empty dictionary or a value that is not a
  // dictionary.
  static std::string urlEncodedString(const QVValue& dict);
};

}  // namespace qv
