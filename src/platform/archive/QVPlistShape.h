#pragma once

#include <cstddef>
#include <string_view>

namespace qv {

// A look at property-list bytes before libplist parses them. libplist 2.2
// recurses once per nesting level and copies a binary object each time it is
// referenced, so a deeply nested document overflows the stack and a binary
// one that shares objects expands exponentially. These checks refuse such
// input; they over-estimate rather than under-estimate, so a refusal may be
// stricter than libplist but never lets a dangerous document through.
class QVPlistShape {
 public:
  // maxDepth bounds the nesting of arrays and dictionaries; maxNodes bounds
  // the number of nodes a binary document expands to.
  static bool isWithinLimits(std::string_view bytes, int maxDepth, std::size_t maxNodes);

 private:
  static bool xmlWithinLimits(std::string_view text, int maxDepth);
  static bool binaryWithinLimits(std::string_view bytes, int maxDepth, std::size_t maxNodes);
};

}  // namespace qv
