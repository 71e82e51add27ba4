#pragma once

#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// A small persistent dictionary of settings, kept as a property-list file
// (XML) that is private to the user: folders that it creates are 0700 and
// the file is 0600, whatever the umask. The file is read once, at first
// use, and each change rewrites it whole and atomically, so a crash leaves
// the old file or the new one. A file that cannot be read, or whose top
// level is not a dictionary, counts as empty; the next change replaces it.
// Changes made by other processes after the first read are not seen.
// Thread-safe; never throws.
class QV_EXPORT QVUserDefaults {
 public:
  // The application's defaults, in "<home>/Library/Preferences/<application
  // identifier>.plist". The path is looked up at every access, so after
  // QVFileSystem::setHomeDirectory the next access reads and writes the file
  // of the new home. Never destroyed.
  static QVUserDefaults& standardUserDefaults();

  // Defaults kept in the file at path.
  explicit QVUserDefaults(std::string path);
  QVUserDefaults(const QVUserDefaults&) = delete;
  QVUserDefaults& operator=(const QVUserDefaults&) = delete;
  ~QVUserDefaults();

  // The file that the next access uses.
  std::string path() const;

  // The value under key; none when there is none.
  std::optional<QVValue> objectForKey(const std::string& key) const;
  // Stores value under key and saves the file. A value that a property list
  // cannot hold (JSON null, at any depth) is refused and nothing changes.
  // When only the save fails, the value is kept for this process, the next
  // change tries to save it again, and the result is false.
  bool setObjectForKey(const QVValue& value, const std::string& key);
  // Removes key and saves the file, as setObjectForKey does; removing a key
  // that is not there changes nothing and succeeds.
  bool removeObjectForKey(const std::string& key);

 private:
  // The standard file of the current home; empty when there is no home folder.
  static std::string standardUserDefaultsPath();

  struct FollowHome {};
  explicit QVUserDefaults(FollowHome);

  // The values of the current file, read unless they were read from it
  // already. The caller holds mutex_.
  QVValue& valuesLocked() const;
  // Makes values the current contents and saves them; the caller holds mutex_.
  bool saveLocked(QVValue values);

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
