#pragma once

#include <cstdint>

namespace qv {

// Figures of one mounted file system, in bytes.
struct QVFileSystemAttributes {
  // Capacity of the whole file system.
  uint64_t size = 0;
  // Space that an unprivileged process may still fill: the blocks reserved
  // for the superuser are left out, as the application cannot use them.
  uint64_t freeSize = 0;
};

}  // namespace qv
