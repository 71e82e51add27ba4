#include "QVCollectorJsonScan.h"

namespace qv::collector {

template <typename Step>
size_t QVCollectorJsonScan::walk(std::string_view text, Step step) {
  size_t depth = 0;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (step(++depth)) return i;
    } else if ((c == ']' || c == '}') && depth > 0) {
      if (step(--depth)) return i;
    }
  }
  return std::string_view::npos;
}

bool QVCollectorJsonScan::withinLimit(std::string_view text, size_t limit) {
  return walk(text, [limit](size_t depth) { return depth > limit; }) == std::string_view::npos;
}

}  // namespace qv::collector
