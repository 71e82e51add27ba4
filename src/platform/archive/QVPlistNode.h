#pragma once

#include <cstdlib>
#include <memory>

#include <plist/plist.h>

namespace qv {

// Owns a libplist node tree; every node the library hands over must end here.
struct QVPlistFree {
  void operator()(plist_t node) const {
    if (node) plist_free(node);
  }
};
using QVPlistNode = std::unique_ptr<void, QVPlistFree>;

// Owns a buffer that libplist allocated with malloc (keys, strings, output).
struct QVPlistBufferFree {
  void operator()(char* p) const { std::free(p); }
};
using QVPlistBuffer = std::unique_ptr<char, QVPlistBufferFree>;

}  // namespace qv
