#pragma once

#include <cstddef>
#include <string_view>

namespace qv::collector {

// Looks at JSON text without parsing it: how deeply it nests. Brackets
// inside strings do not count.
class QVCollectorJsonScan {
 public:
  static constexpr size_t kLimit = 512;

  // The JSON library and the page's tree both recurse once a level, so text
  // nested deeper than any payload could be is refused before either sees it.
  static bool withinLimit(std::string_view text, size_t limit = kLimit);

 private:
  // Calls step(depth) after each bracket outside strings; stops, answering
  // the position, when step returns true. npos when it never does.
  template <typename Step>
  static size_t walk(std::string_view text, Step step);
};

}  // namespace qv::collector
