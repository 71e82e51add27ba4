#include "qvcore/platform/QVBundle.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <optional>

#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVPropertyList.h"

namespace qv {

namespace {

// Process-wide bundle settings. Never destroyed: modules may look their
// bundles up while static objects are being destroyed.
struct BundleSettings {
  std::mutex mutex;
  bool environmentRead = false;
  std::vector<std::string> searchPaths;
  std::string mainPathFromEnvironment;
  std::string mainPathOverride;
};

std::vector<std::string> splitPathList(const char* list) {
  std::vector<std::string> folders;
  if (!list) return folders;
  std::string rest = list;
  std::size_t start = 0;
  while (start <= rest.size()) {
    std::size_t colon = rest.find(':', start);
    if (colon == std::string::npos) colon = rest.size();
    if (colon > start) folders.push_back(rest.substr(start, colon - start));
    start = colon + 1;
  }
  return folders;
}

// Returns the settings locked, with the environment read on first use.
BundleSettings& lockedSettings(std::unique_lock<std::mutex>& lock) {
  static auto* settings = new BundleSettings;
  lock = std::unique_lock(settings->mutex);
  if (!settings->environmentRead) {
    settings->environmentRead = true;
    settings->searchPaths = splitPathList(std::getenv("QVCORE_BUNDLE_PATH"));
    if (const char* main = std::getenv("QVCORE_MAIN_BUNDLE")) {
      settings->mainPathFromEnvironment = main;
    }
  }
  return *settings;
}

std::string realPath(const std::string& path) {
  char resolved[PATH_MAX];
  if (path.empty() || !::realpath(path.c_str(), resolved)) return "";
  return resolved;
}

std::string executablePath() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return "";
  return std::string(buffer, static_cast<std::size_t>(n));
}

std::string resourceFileName(const std::string& name, const std::string& type) {
  return type.empty() ? name : name + "." + type;
}

}  // namespace

QVBundle::QVBundle(std::string bundlePath, std::vector<std::string> resourceFolders)
    : bundlePath_(std::move(bundlePath)), resourceFolders_(std::move(resourceFolders)) {
  if (resourceFolders_.empty()) resourceFolders_.push_back(bundlePath_);
}

std::shared_ptr<QVBundle> QVBundle::mainBundle() {
  const std::string path = mainBundlePath();
  std::vector<std::string> folders{path};
  for (std::string& folder : searchPaths()) folders.push_back(std::move(folder));
  return std::make_shared<QVBundle>(path, std::move(folders));
}

std::shared_ptr<QVBundle> QVBundle::libraryBundle() {
  const std::string folder = QVFileSystem::stringByDeletingLastPathComponent(libraryPath());
  std::vector<std::string> folders = searchPaths();
  if (!folder.empty()) {
    folders.push_back(folder);
    folders.push_back(folder + "/../share/qvcore");
    folders.push_back(folder + "/../../share/qvcore");
  }
  return std::make_shared<QVBundle>(folder, std::move(folders));
}

std::string QVBundle::coreSettingsBundlePath() {
  std::string path = mainBundle()->pathForResourceOfType("QVCoreSettings", "bundle");
  if (!path.empty()) return path;
  return libraryBundle()->pathForResourceOfType("QVCoreSettings", "bundle");
}

QVValue QVBundle::infoDictionary() const {
  const std::string file = QVFileSystem::stringByAppendingPathComponent(bundlePath_, "Info.plist");
  std::optional<QVValue> info = QVPropertyList::dictionaryWithContentsOfFile(file);
  return info ? std::move(*info) : QVValue::object();
}

std::string QVBundle::pathForResourceOfType(const std::string& name,
                                            const std::string& type) const {
  if (name.empty()) return "";
  const std::string fileName = resourceFileName(name, type);
  for (const std::string& folder : resourceFolders_) {
    if (folder.empty()) continue;
    std::string candidate = QVFileSystem::stringByAppendingPathComponent(folder, fileName);
    if (QVFileSystem::fileExistsAtPath(candidate)) return candidate;
  }
  return "";
}

std::string QVBundle::mainBundlePath() {
  {
    std::unique_lock<std::mutex> lock;
    BundleSettings& settings = lockedSettings(lock);
    if (!settings.mainPathOverride.empty()) return settings.mainPathOverride;
    if (!settings.mainPathFromEnvironment.empty()) return settings.mainPathFromEnvironment;
  }
  return QVFileSystem::stringByDeletingLastPathComponent(executablePath());
}

void QVBundle::setMainBundlePath(const std::string& path) {
  std::unique_lock<std::mutex> lock;
  lockedSettings(lock).mainPathOverride = path;
}

std::vector<std::string> QVBundle::searchPaths() {
  std::unique_lock<std::mutex> lock;
  return lockedSettings(lock).searchPaths;
}

void QVBundle::setSearchPaths(std::vector<std::string> paths) {
  std::unique_lock<std::mutex> lock;
  lockedSettings(lock).searchPaths = std::move(paths);
}

void QVBundle::addSearchPath(const std::string& path) {
  if (path.empty()) return;
  std::unique_lock<std::mutex> lock;
  lockedSettings(lock).searchPaths.push_back(path);
}

void QVBundle::clearSearchPaths() {
  std::unique_lock<std::mutex> lock;
  lockedSettings(lock).searchPaths.clear();
}

std::string QVBundle::libraryPath() {
  Dl_info info{};
  const auto* self = reinterpret_cast<const void*>(&QVBundle::libraryPath);
  if (::dladdr(self, &info) != 0 && info.dli_fname) {
    // For code linked into the executable dladdr may give the name the
    // program was started by, which need not resolve from here.
    std::string path = realPath(info.dli_fname);
    if (!path.empty()) return path;
  }
  return executablePath();
}

}  // namespace qv
