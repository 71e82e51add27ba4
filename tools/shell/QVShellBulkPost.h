#pragma once

#include <cstdint>
#include <functional>
#include <ostream>

namespace qv::shell {

// Posts many messages from several threads at once, the way a busy host
// application does, and draws a progress bar while they go.
class QVShellBulkPost {
 public:
  // Calls postOne(i) for every i below count, spread over threads threads;
  // answers how many were accepted. With progress set, a bar on it follows
  // the posts and ends with a line break.
  static uint64_t run(uint64_t count, unsigned threads,
                      const std::function<bool(uint64_t)>& postOne, std::ostream* progress);
};

}  // namespace qv::shell
