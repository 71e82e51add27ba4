#pragma once

#include <string_view>

#include "qvcore/platform/QVPropertyList.h"

namespace qv {

// The one way text from outside (configuration files, cached queues) becomes
// a JSON value. The JSON library recurses once per nesting level, so text
// nested deeper than maxDepth is refused before the stack runs out, as a
// malformed text is. Json is nlohmann::json or QVValue.
class QVJsonParse {
 public:
  // The value; a discarded one for malformed or too deeply nested text.
  template <typename Json>
  static Json withDepthLimit(std::string_view text,
                             int maxDepth = QVPropertyList::kMaxNestingDepth) {
    struct TooDeep {};
    const auto limitDepth = [maxDepth](int depth, typename Json::parse_event_t event, Json&) {
      if ((event == Json::parse_event_t::object_start ||
           event == Json::parse_event_t::array_start) &&
          depth >= maxDepth) {
        throw TooDeep{};
      }
      return true;
    };
    try {
      return Json::parse(text.begin(), text.end(), limitDepth, false);
    } catch (const TooDeep&) {
      return Json(Json::value_t::discarded);
    }
  }
};

}  // namespace qv
