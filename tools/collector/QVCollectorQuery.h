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
  // value; empty pairs (from "&&" or a trailing "&") are skipped. Every "&"
  // separates: the library escapes it in strings and in nested containers.
  static Pairs pairs(std::string_view query);

  // The pairs as a dictionary in the order sent. Values are typed back the
  // way the library wrote them: once percent-decoded, JSON arrays and
  // objects (nested containers, sent as their escaped JSON text), "null" and
  // canonical integers become JSON; everything else stays text. A string
  // that reads as one of those comes back as it, since the query cannot tell
  // them apart. A key sent more than once holds an array of its values.
  static QVValue dictionary(std::string_view query);

 private:
  static QVValue typed(const std::string& text);
  static bool isCanonicalInteger(const std::string& text);
};

}  // namespace qv::collector
