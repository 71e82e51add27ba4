#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvcore/platform/QVValue.h"

namespace qv::collector {

// Reads a URL query (key=value pairs joined by "&") back into the dictionary
// that the URL-encoded post was made from.
class QVCollectorQuery {
 public:
  using Pairs = std::vector<std::pair<std::string, std::string>>;

  // "%XX" becomes its byte; a "%" without two hex digits stays as it is.
  // "+" stays a plus: the library leaves "+" in values unescaped, meaning
  // itself, so reading it as a space would change the data.
  static std::string percentDecode(std::string_view text);

  // The decoded pairs in the order sent. A pair without "=" has an empty
  // value; empty pairs (from "&&" or a trailing "&") are skipped. A value
  // that opens a JSON array or object ends where it closes, "&" or not.
  static Pairs pairs(std::string_view query);

  // The pairs as a dictionary in the order sent. Values are typed back the
  // way the library wrote them: JSON arrays and objects (nested containers)
  // and canonical integers become JSON; everything else stays text. A key
  // sent more than once holds an array of its values.
  static QVValue dictionary(std::string_view query);

 private:
  static size_t pairEnd(std::string_view query);
  static QVValue typed(const std::string& text);
  static bool isCanonicalInteger(const std::string& text);
};

}  // namespace qv::collector
