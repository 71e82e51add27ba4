#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "qvcore/QVExport.h"

namespace qv {

// The file operations that configuration and bundle lookup need. Every
// operation reports failure by its result and never throws.
class QV_EXPORT QVFileSystem {
 public:
  // Whether something exists at path; isDirectory, when given, tells whether
  // it is a folder. Symbolic links are followed.
  static bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr);
  // True only for an existing entry that is not a folder.
  static bool isFileAtPath(const std::string& path);
  static bool isDirectoryAtPath(const std::string& path);

  // The whole contents of the file at path; none when it cannot be read or
  // is larger than maxBytes (so that a huge file is refused before it is
  // read, not after).
  static std::optional<std::string> contentsAtPath(const std::string& path, std::size_t maxBytes);

  // Replaces the file at path with bytes as one step: a temporary file in the
  // same folder is written, flushed and renamed over path, so readers see the
  // old contents or the new ones, never a part.
  static bool writeAtomically(const std::string& path, std::string_view bytes);

  // path + "/" + component, without doubling a trailing slash; an empty path
  // gives component unchanged.
  static std::string stringByAppendingPathComponent(const std::string& path,
                                                    const std::string& component);
  // The folder part of path ("" for a bare name, "/" for a file in the root).
  static std::string stringByDeletingLastPathComponent(const std::string& path);
};

}  // namespace qv
