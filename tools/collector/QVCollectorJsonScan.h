#pragma once

#include <cstddef>
#include <string_view>

namespace qv::collector {

// Looks at JSON text without parsing it: how deeply it nests, and where a
// container that opens at the start of the text closes. Brackets inside
// strings do not count.
class QVCollectorJsonScan {
 public:
  static constexpr size_t kLimit = 512;

  // The JSON library and the page's tree both recurse once a level, so text
  // nested deeper than any payload could be is refused before either sees it.
  static bool withinLimit(std::string_view text, size_t limit = kLimit);
  // One past the bracket that closes the array or object opening at text[0];
  // npos when text does not start with one or it never closes.
  static size_t containerEnd(std::string_view text);

 private:
  // Calls step(depth) after each bracket outside strings; stops, answering
  // the position, when step returns true. npos when it never does.
  template <typename Step>
  static size_t walk(std::string_view text, Step step);
};

}  // namespace qv::collector
