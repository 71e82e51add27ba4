#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVFileSystemAttributes.h"

namespace qv {

// The file operations of the core: configuration and bundle lookup, the
// application's data folder, and the sizes of file systems. Every operation
// reports failure by its result and never throws.
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

  // What an entry of a folder is in itself: a symbolic link is reported as
  // one, never as what it points at.
  enum class EntryKind { kRegularFile, kSymbolicLink, kOther };
  struct FolderEntry {
    std::string name;
    EntryKind kind;
  };
  // The entries of the folder at path, in name order. None when path is not
  // a folder, is a symbolic link (even to a folder), or cannot be listed.
  static std::optional<std::vector<FolderEntry>> entriesOfFolderNoFollow(const std::string& path);
  // Whether path is a folder in itself, not a symbolic link to one.
  static bool isDirectoryNoFollowAtPath(const std::string& path);

  // contentsAtPath, but a symbolic link at the last component is not
  // followed: the file is read only when it is a regular file in itself.
  static std::optional<std::string> contentsAtPathNoFollow(const std::string& path,
                                                           std::size_t maxBytes);
  // Removes the entry at path if it is a regular file or a symbolic link
  // (the link itself, never what it points at); folders, FIFOs, sockets and
  // devices are left. True when such an entry was removed.
  static bool removeFileNoFollow(const std::string& path);

  // Replaces the file at path with bytes as one step: a temporary file in the
  // same folder is written, flushed and renamed over path, so readers see the
  // old contents or the new ones, never a part.
  static bool writeAtomically(const std::string& path, std::string_view bytes);
  // The same, the new file getting exactly mode (whatever the umask).
  static bool writeAtomically(const std::string& path, std::string_view bytes, mode_t mode);

  // Creates the folder at path and its missing parents, each with exactly
  // mode (whatever the umask); folders that exist keep their mode. True when
  // a folder is at path afterwards.
  static bool createDirectoryAtPath(const std::string& path, mode_t mode);

  // The application's data folder: the folder given to setHomeDirectory, else
  // $QVCORE_HOME, else $XDG_DATA_HOME/<id>, else $HOME/.local/share/<id>
  // (the password database's home when $HOME is unset), where <id> is the
  // main bundle's "CFBundleIdentifier" or, without one, the executable's file
  // name. A relative $XDG_DATA_HOME is ignored, as the XDG rules ask. The
  // environment is read at every call. Empty when no folder can be named.
  // Asking creates nothing: the users of a folder create what they write.
  static std::string homeDirectory();
  // An empty path goes back to the environment's choice.
  static void setHomeDirectory(const std::string& path);
  // homeDirectory() + "/Documents"; empty when the home is.
  static std::string documentsDirectory();

  // Figures of the file system that holds path. A path that does not exist
  // yet is measured at its nearest existing ancestor, the file system on
  // which it would be created. None when nothing on the way can be examined.
  static std::optional<QVFileSystemAttributes> attributesOfFileSystemForPath(
      const std::string& path);

  // path + "/" + component, without doubling a trailing slash; an empty path
  // gives component unchanged.
  static std::string stringByAppendingPathComponent(const std::string& path,
                                                    const std::string& component);
  // The folder part of path ("" for a bare name, "/" for a file in the root).
  static std::string stringByDeletingLastPathComponent(const std::string& path);
};

}  // namespace qv
