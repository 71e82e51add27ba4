#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qv {

// The folder of queues that could not be sent: "QVCoreCachedQueues" in the
// documents folder, mode 0700, one file per queue,
// "<module class name>_<seconds since 1970, %f>.json", mode 0600, written
// atomically. Every file operation goes through QVFileSystem. Safe from any
// thread: a write and a read-back of the folder never overlap, so a file is
// either read whole or left for the next read-back.
class QVQueueFileCache {
 public:
  // A file taken out of the folder: its name and its text, none when it
  // could not be read.
  struct File {
    std::string name;
    std::optional<std::string> text;
  };

  // A file larger than this is no queue the service wrote: dropped unread.
  static constexpr std::size_t kMaxFileBytes = 64u << 20;

  static std::string folder();
  // True when the folder is there afterwards; the documents folder is made
  // first when it is missing.
  static bool createFolder();
  // Writes text under a new name for the module: names never repeat within
  // a process, a write in the same microsecond as the one before getting the
  // next microsecond. False when the folder is missing or is a symbolic
  // link, or the write fails.
  bool write(const std::string& moduleName, const std::string& text);
  // Reads and deletes every regular file of the folder, in name order.
  // Nothing is followed through a symbolic link: a folder that is one is
  // not read at all, an entry that is one is removed (the link, not its
  // target). Folders, FIFOs and devices are left alone, unread.
  std::vector<File> takeAll();
  // The text of one file (none when it is not UTF-8, not a regular file or
  // larger than kMaxFileBytes, which is not read at all); the file is
  // deleted, read or not, unless it is neither a regular file nor a link.
  static std::optional<std::string> take(const std::string& path);
  // The module class name a file name gives: everything before its first
  // "_".
  static std::string moduleNameOf(const std::string& path);

 private:
  std::mutex mutex_;
};

}  // namespace qv
