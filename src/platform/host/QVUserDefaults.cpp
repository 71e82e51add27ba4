#include "qvcore/platform/QVUserDefaults.h"

#include <mutex>

#include "platform/host/QVApplicationIdentifier.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVPropertyList.h"

namespace qv {

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

}  // namespace

QVUserDefaults& QVUserDefaults::standardUserDefaults() {
  // Never destroyed: modules may store settings while the process exits.
  static auto* defaults = new QVUserDefaults(FollowHome{});
  return *defaults;
}

std::string QVUserDefaults::standardUserDefaultsPath() {
  const std::string home = QVFileSystem::homeDirectory();
  if (home.empty()) return "";
  return QVFileSystem::stringByAppendingPathComponent(
      home, "Library/Preferences/" + applicationIdentifier() + ".plist");
}

struct QVUserDefaults::Impl {
  Impl(bool followsHome, std::string fixedPath)
      : followsHome_(followsHome), fixedPath_(std::move(fixedPath)) {}

  const bool followsHome_;
  const std::string fixedPath_;
  mutable std::mutex mutex_;
  mutable std::optional<std::string> loadedPath_;
  mutable QVValue values_ = QVValue::object();
};

QVUserDefaults::QVUserDefaults(std::string path)
    : impl_(std::make_unique<Impl>(false, std::move(path))) {}

QVUserDefaults::QVUserDefaults(FollowHome) : impl_(std::make_unique<Impl>(true, std::string())) {}

QVUserDefaults::~QVUserDefaults() = default;

std::string QVUserDefaults::path() const {
  return impl_->followsHome_ ? standardUserDefaultsPath() : impl_->fixedPath_;
}

std::optional<QVValue> QVUserDefaults::objectForKey(const std::string& key) const {
  std::lock_guard lock(impl_->mutex_);
  return QVValues::objectForKey(valuesLocked(), key);
}

bool QVUserDefaults::setObjectForKey(const QVValue& value, const std::string& key) {
  std::lock_guard lock(impl_->mutex_);
  QVValue values = valuesLocked();
  values[key] = value;
  return saveLocked(std::move(values));
}

bool QVUserDefaults::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(impl_->mutex_);
  QVValue values = valuesLocked();
  if (values.erase(key) == 0) return true;
  return saveLocked(std::move(values));
}

QVValue& QVUserDefaults::valuesLocked() const {
  std::string current = path();
  if (impl_->loadedPath_ != current) {
    std::optional<QVValue> stored;
    if (!current.empty()) stored = QVPropertyList::dictionaryWithContentsOfFile(current);
    impl_->values_ = stored ? std::move(*stored) : QVValue::object();
    impl_->loadedPath_ = std::move(current);
  }
  return impl_->values_;
}

bool QVUserDefaults::saveLocked(QVValue values) {
  // Encoded before anything changes, so a value that cannot be stored is
  // refused whole.
  std::optional<std::string> bytes =
      QVPropertyList::dataWithDictionary(values, QVPropertyList::Format::kXML);
  if (!bytes) return false;
  impl_->values_ = std::move(values);
  const std::string& file = *impl_->loadedPath_;
  if (file.empty()) return false;
  const std::string folder = QVFileSystem::stringByDeletingLastPathComponent(file);
  if (!folder.empty() && !QVFileSystem::createDirectoryAtPath(folder, kFolderMode)) return false;
  return QVFileSystem::writeAtomically(file, *bytes, kFileMode);
}

}  // namespace qv
