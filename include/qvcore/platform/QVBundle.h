#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// A bundle is a folder. Resources are looked up as "<name>.<type>" in the
// bundle's resource folders, in order. The main bundle is the application's
// folder; bundles that are not inside it are found through a search path of
// folders that the host sets, here or with the environment.
//
// Environment, read once at first use:
//   QVCORE_MAIN_BUNDLE  the main bundle's folder (default: the folder of the
//                       running executable)
//   QVCORE_BUNDLE_PATH  colon-separated folders that start the search path
// The setters below override what the environment gave.
class QV_EXPORT QVBundle {
 public:
  // A bundle at bundlePath whose resources are looked up in resourceFolders;
  // an empty list means the bundle's own folder.
  explicit QVBundle(std::string bundlePath, std::vector<std::string> resourceFolders = {});

  // The application's bundle: resources in its folder, then in the search path.
  static std::shared_ptr<QVBundle> mainBundle();
  // The bundle that holds this library: resources in the search path, then
  // beside the library file, then in the data folder of its installation
  // (../share/qvcore, or ../../share/qvcore for a multiarch libdir).
  static std::shared_ptr<QVBundle> libraryBundle();

  // The core's settings bundle, "QVCoreSettings.bundle": the main bundle's
  // resource when it has one, else the library bundle's; empty when neither.
  static std::string coreSettingsBundlePath();

  const std::string& bundlePath() const { return bundlePath_; }
  const std::vector<std::string>& resourceFolders() const { return resourceFolders_; }

  // The dictionary of "Info.plist" in the bundle's folder (XML or binary);
  // an empty dictionary when it is missing or unreadable.
  QVValue infoDictionary() const;

  // Full path of the file or folder "<name>.<type>" (just name when type is
  // empty) in the first resource folder that has it; empty when none has.
  std::string pathForResourceOfType(const std::string& name, const std::string& type) const;

  static std::string mainBundlePath();
  // An empty path goes back to the environment's choice or the default.
  static void setMainBundlePath(const std::string& path);

  static std::vector<std::string> searchPaths();
  static void setSearchPaths(std::vector<std::string> paths);
  static void addSearchPath(const std::string& path);
  static void clearSearchPaths();

 private:
  // Full path of the file that holds this library's code: the shared
  // library, or the executable into which it was linked.
  static std::string libraryPath();

  std::string bundlePath_;
  std::vector<std::string> resourceFolders_;
};

}  // namespace qv
