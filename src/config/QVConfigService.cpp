#include "qvcore/config/QVConfigService.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "config/QVConfigJSONReader.h"
#include "platform/host/QVSwallowed.h"
#include "qvcore/config/QVConfigKeys.h"
#include "qvcore/core/QVConfigurationSaver.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVPropertyList.h"

namespace qv {

namespace {

namespace keys = QVConfigKeys;

// The one-time guard of sharedInstance. Making the service loads its own
// configuration, which asks QVCore for pending items, and QVCore may come
// back here; std::call_once or a function-local static would deadlock on
// that re-entry. The thread that is making the instance gets it at once,
// other threads wait until it is complete.
struct ServiceSingleton {
  std::atomic<bool> complete{false};
  std::mutex mutex;
  std::condition_variable completed;
  std::shared_ptr<QVConfigService> instance;
  std::thread::id maker;
};

ServiceSingleton& serviceSingleton() {
  // Never destroyed: modules may read configuration during static destruction.
  static auto* singleton = new ServiceSingleton;
  return *singleton;
}

void markComplete(ServiceSingleton& s) {
  std::lock_guard lock(s.mutex);
  s.complete.store(true, std::memory_order_release);
  s.completed.notify_all();
}

bool endsWith(const std::string& text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

QV_REGISTER_MODULE(QVConfigService);

std::shared_ptr<QVConfigService> QVConfigService::sharedInstance() {
  ServiceSingleton& s = serviceSingleton();
  if (s.complete.load(std::memory_order_acquire)) return s.instance;
  std::unique_lock lock(s.mutex);
  if (s.instance) {
    if (s.maker != std::this_thread::get_id()) {
      s.completed.wait(lock, [&] { return s.complete.load(); });
    }
    return s.instance;
  }
  s.instance = std::shared_ptr<QVConfigService>(new QVConfigService);
  s.maker = std::this_thread::get_id();
  std::shared_ptr<QVConfigService> instance = s.instance;
  lock.unlock();
  struct Completion {
    ServiceSingleton& s;
    ~Completion() { markComplete(s); }
  } completion{s};
  // The service's own configuration comes from the core's settings bundle.
  instance->loadConfig(instance);
  return instance;
}

struct QVConfigService::Impl {
  std::atomic<bool> enabled_{false};

  // Guards configurations_ and the contents of the dictionaries in it. A
  // leaf lock: nothing outside the service runs while it is held.
  mutable std::mutex dataMutex_;
  Configurations configurations_;
  // Read on every post; on a line of its own, away from the mutex that
  // writers take.
  alignas(64) std::atomic<uint64_t> generation_{1};

  // The re-entrant lock of the two writers that persist; it is held while
  // the module saves, so that saves of one configuration do not interleave.
  std::recursive_mutex configurationsLock_;
};

QVConfigService::QVConfigService() : impl_(std::make_unique<Impl>()) {}
QVConfigService::~QVConfigService() = default;

bool QVConfigService::isEnabled() const { return impl_->enabled_.load(); }

bool QVConfigService::enable() {
  impl_->enabled_ = true;
  return true;
}

bool QVConfigService::disable() {
  impl_->enabled_ = false;
  return true;
}

std::string QVConfigService::settingsBundlePath() const {
  return QVBundle::coreSettingsBundlePath();
}

// ---- loading ------------------------------------------------------------------

bool QVConfigService::loadConfig(const ModuleRef& module) {
  if (!module) return false;
  try {
    const std::string name = module->className();
    if (storedConfig(name)) return true;
    QVValue merged = mergedFileConfig(module->settingsBundlePath());
    const QVValue pending = QVCore::sharedInstance()->takeTempConfigForModuleName(name);
    QVValues::addEntriesFromDictionary(merged, pending);
    if (merged.empty()) return false;
    return storeLoadedConfig(name, std::move(merged), pending);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

// The three files of the bundle merged in order. A file that is malformed,
// unreadable, or well formed but not a dictionary (a list, say) adds
// nothing: one bad file must not cost the module the items of the others,
// such as the address it posts to. A module without a bundle folder has no
// files (an empty path is not taken to mean the current folder).
QVValue QVConfigService::mergedFileConfig(const std::string& path) const {
  QVValue merged = QVValue::object();
  if (path.empty()) return merged;
  const std::optional<QVValue> sources[] = {basicPlistFileConfig(path), jsonConfigForBundle(path),
                                            layoutJsonConfigForBundle(path)};
  for (const std::optional<QVValue>& source : sources) {
    if (source && source->is_object()) QVValues::addEntriesFromDictionary(merged, *source);
  }
  return merged;
}

bool QVConfigService::storeLoadedConfig(const std::string& name, QVValue merged,
                                        const QVValue& pending) {
  std::lock_guard lock(impl_->dataMutex_);
  changedLocked();
  auto it = impl_->configurations_.find(name);
  if (it != impl_->configurations_.end() && it->second) {
    // A load on another thread stored the same files first; the pending
    // items went to this load alone, so they are applied to that dictionary.
    QVValues::addEntriesFromDictionary(*it->second, pending);
    return true;
  }
  impl_->configurations_[name] = std::make_shared<QVValue>(std::move(merged));
  return true;
}

void QVConfigService::unloadConfig(const ModuleRef& module) {
  if (!module) return;
  const std::string name = module->className();
  std::lock_guard lock(impl_->dataMutex_);
  changedLocked();
  impl_->configurations_.erase(name);
}

std::string QVConfigService::configFilePath(const std::string& path, const char* baseName) const {
  if (path.empty()) return "";
  return QVFileSystem::stringByAppendingPathComponent(path,
                                                      prefixForModuleBundleName(path) + baseName);
}

std::optional<QVValue> QVConfigService::basicPlistFileConfig(const std::string& path) const {
  const std::string file = configFilePath(path, keys::kBasicConfigFile);
  if (!fileExistsAtFullPath(file)) return std::nullopt;
  return QVPropertyList::propertyListWithContentsOfFile(file);
}

QVValue QVConfigService::plistConfigForBundle(const std::string& path) const {
  try {
    std::optional<QVValue> plist = basicPlistFileConfig(path);
    if (plist && plist->is_object()) return std::move(*plist);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
  return QVValue::object();
}

std::optional<QVValue> QVConfigService::jsonFileConfig(const std::string& path,
                                                       const char* baseName) const {
  try {
    const std::string file = configFilePath(path, baseName);
    if (!fileExistsAtFullPath(file)) return QVValue::object();
    return QVConfigJSONReader::jsonWithContentsOfFile(file);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return QVValue::object();
  }
}

std::optional<QVValue> QVConfigService::jsonConfigForBundle(const std::string& path) const {
  return jsonFileConfig(path, keys::kAdvancedConfigFile);
}

std::optional<QVValue> QVConfigService::layoutJsonConfigForBundle(const std::string& path) const {
  if (prefixForModuleBundleName(path) != "Brevant") return QVValue::object();
  return jsonFileConfig(path, keys::kLayoutConfigFile);
}

std::string QVConfigService::prefixForModuleBundleName(const std::string& path) const {
  if (endsWith(path, "BRVResources.bundle")) return "Brevant";
  if (endsWith(path, "TestModuleResources.bundle")) return "Brevant";
  if (endsWith(path, "QVCoreSettings.bundle")) return "QVCore";
  return "";
}

bool QVConfigService::fileExistsAtFullPath(const std::string& path) const {
  return QVFileSystem::isFileAtPath(path);
}

QVConfigService::Configurations QVConfigService::configurations() const {
  std::lock_guard lock(impl_->dataMutex_);
  return impl_->configurations_;
}

void QVConfigService::setConfigurations(Configurations configurations) {
  std::lock_guard lock(impl_->dataMutex_);
  changedLocked();
  impl_->configurations_ = std::move(configurations);
}

// ---- reading and changing items ----------------------------------------------

QVDictionaryRef QVConfigService::storedConfig(const std::string& name) const {
  std::lock_guard lock(impl_->dataMutex_);
  auto it = impl_->configurations_.find(name);
  return it == impl_->configurations_.end() ? nullptr : it->second;
}

uint64_t QVConfigService::generation() const {
  return impl_->generation_.load(std::memory_order_acquire);
}

// Bumped before the change it announces, under the same lock: a reader
// that finds the new number and then reads under the lock sees the change,
// and one that read before it finds the number moved on its next check.
void QVConfigService::changedLocked() {
  impl_->generation_.fetch_add(1, std::memory_order_acq_rel);
}

bool QVConfigService::isConfigStored(const std::string& name) const {
  return storedConfig(name) != nullptr;
}

QVDictionaryRef QVConfigService::getConfig(const ModuleRef& module) {
  if (!module) return nullptr;
  try {
    const std::string name = module->className();
    if (QVDictionaryRef config = storedConfig(name)) return config;
    if (!loadConfig(module)) return nullptr;
    return storedConfig(name);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return nullptr;
  }
}

std::optional<QVValue> QVConfigService::getConfigItemForLifecycleObject(const std::string& key,
                                                                        const ModuleRef& module) {
  try {
    QVDictionaryRef config = getConfig(module);
    if (!config) return std::nullopt;
    std::lock_guard lock(impl_->dataMutex_);
    std::optional<QVValue> item = QVValues::objectForKey(*config, key);
    if (!item || item->is_null()) return std::nullopt;
    return item;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return std::nullopt;
  }
}

bool QVConfigService::updateConfigWithData(const ModuleRef& module, const QVValue& items) {
  QVDictionaryRef config = getConfig(module);
  if (!config) return false;
  if (items.is_null()) return true;  // No dictionary: nothing to add.
  if (!items.is_object()) return false;
  try {
    std::lock_guard lock(impl_->dataMutex_);
    changedLocked();
    QVValues::addEntriesFromDictionary(*config, items);
    return true;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

bool QVConfigService::setConfigItemForKeyWithValueForModule(const std::string& key,
                                                            const std::optional<QVValue>& value,
                                                            const ModuleRef& module) {
  try {
    std::lock_guard persisting(impl_->configurationsLock_);
    QVDictionaryRef config = getConfig(module);
    if (key.empty() || !config || !value) return false;
    if (!QVValues::isString(*value) && !QVValues::isNumber(*value)) return false;
    {
      std::lock_guard lock(impl_->dataMutex_);
      changedLocked();
      QVValues::setValueForKey(*config, key, *value);
    }
    return saveCurrentConfigurableItemsForLifeCycleObject(config, module);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

QVDictionaryRef QVConfigService::currentConfigurableItemsForLifecycleObject(
    const ModuleRef& module) {
  return getConfig(module);
}

bool QVConfigService::saveCurrentConfigurableItemsForLifeCycleObject(const QVDictionaryRef& items,
                                                                     const ModuleRef& module) {
  auto* saver = dynamic_cast<QVConfigurationSaver*>(module.get());
  if (!saver || !items || !items->is_object()) return false;
  try {
    const std::string name = module->className();
    std::lock_guard persisting(impl_->configurationsLock_);
    QVValue snapshot;
    {
      std::lock_guard lock(impl_->dataMutex_);
      changedLocked();
      impl_->configurations_[name] = items;
      snapshot = *items;
    }
    // The module saves a copy, so that updates on other threads cannot
    // change the dictionary under it while it writes.
    return saver->saveCurrentConfigurableItems(snapshot);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

// ---- typed readers -----------------------------------------------------------

bool QVConfigService::getConfigItemAsBoolWithDefaultForModuleName(const std::string& key,
                                                                  bool defaultValue,
                                                                  const ModuleRef& module) {
  if (!module) return defaultValue;
  try {
    std::optional<QVValue> item = getConfigItemForLifecycleObject(key, module);
    if (item && QVValues::isNumber(*item)) return QVValues::boolValue(*item);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
  return defaultValue;
}

QVValue QVConfigService::getNumberItemForWithDefaultForModule(const std::string& key,
                                                              const QVValue& defaultValue,
                                                              const ModuleRef& module) {
  try {
    std::optional<QVValue> item = getConfigItemForLifecycleObject(key, module);
    if (item && QVValues::isNumber(*item)) return std::move(*item);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
  return defaultValue;
}

// ---- accessors of the core's configuration -------------------------------------

std::optional<QVValue> QVConfigService::coreItem(const char* key) {
  return getConfigItemForLifecycleObject(key, QVCore::sharedInstance());
}

bool QVConfigService::coreBool(const char* key, bool defaultValue) {
  return getConfigItemAsBoolWithDefaultForModuleName(key, defaultValue, QVCore::sharedInstance());
}

QVValue QVConfigService::coreNumber(const char* key, const QVValue& defaultValue) {
  return getNumberItemForWithDefaultForModule(key, defaultValue, QVCore::sharedInstance());
}

bool QVConfigService::isManualPostingEnabled() { return coreBool(keys::kManualPostEnabled, true); }

// Deliberately not the typed reader: a missing item means on, and a present
// item of any type gives its own boolean value (a string is interpreted, not
// replaced by the default). Any failure means off.
bool QVConfigService::isURLEncodedForModule(const ModuleRef& module) {
  if (!module) return false;
  try {
    const std::optional<QVValue> item = getConfigItemForLifecycleObject(keys::kURLEncoded, module);
    return item && QVValues::boolValue(*item);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

bool QVConfigService::isCompressPostMessageEnabled() {
  try {
    std::optional<QVValue> item = coreItem(keys::kCompressPostMessage);
    return !item || QVValues::boolValue(*item);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

QVValue QVConfigService::cachingLevel() { return coreNumber(keys::kCachingLevel, 3); }

bool QVConfigService::isDoPostOnIntervalsEnabled() {
  return coreBool(keys::kDoPostOnIntervals, true);
}

bool QVConfigService::isHasToPersistLocalCacheEnabled() {
  return coreBool(keys::kHasToPersistLocalCache, true);
}

QVValue QVConfigService::loggingLevel() { return coreNumber(keys::kLoggingLevel, 3); }

// The network-change handler of QVCore reads this key with a default of 2;
// the accessor's 3 is the documented default for modules. Both are intended.
QVValue QVConfigService::postMessageLevelCellular() {
  return coreNumber(keys::kPostMessageLevelCellular, 3);
}

QVValue QVConfigService::postMessageLevelWifi() {
  return coreNumber(keys::kPostMessageLevelWiFi, 3);
}

QVValue QVConfigService::postMessageTimeIntervals() {
  return coreNumber(keys::kPostMessageTimeIntervals, 30);
}

// The lifecycle manager reads the four "DoPostApp..." keys raw, where a
// missing item means off; the defaults here differ on purpose.
bool QVConfigService::isDoPostAppComesFromBackgroundEnabled() {
  return coreBool(keys::kDoPostAppComesFromBackground, false);
}

bool QVConfigService::isDoPostAppGoesToBackgroundEnabled() {
  return coreBool(keys::kDoPostAppGoesToBackground, true);
}

bool QVConfigService::isDoPostAppGoesToCloseEnabled() {
  return coreBool(keys::kDoPostAppGoesToClose, false);
}

bool QVConfigService::isDoPostAppIsLaunchedEnabled() {
  return coreBool(keys::kDoPostAppIsLaunched, true);
}

bool QVConfigService::isDoPostOnScreenChangeEnabled() {
  return coreBool(keys::kDoPostOnScreenChange, true);
}

bool QVConfigService::isDynamicConfigurationEnabled() {
  return coreBool(keys::kDynamicConfigurationEnabled, true);
}

QVValue QVConfigService::cachedFileMaxBytesSize() {
  return coreNumber(keys::kCachedFileMaxBytesSize, 512000);
}

QVValue QVConfigService::postMessageMaxBytesSize() {
  return coreNumber(keys::kPostMessageMaxBytesSize, 200000);
}

QVValue QVConfigService::postMessageTimeout() { return coreNumber(keys::kPostMessageTimeout, 5); }

QVValue QVConfigService::criticalBatteryLevel() {
  return coreNumber(keys::kCriticalBatteryLevel, 0.2);
}

std::optional<QVValue> QVConfigService::libraryVersion() { return coreItem(keys::kLibraryVersion); }

std::optional<QVValue> QVConfigService::messageVersion() { return coreItem(keys::kMessageVersion); }

bool QVConfigService::turnOffCorrectOrientationUpdates() {
  return coreBool(keys::kTurnOffCorrectOrientationUpdates, false);
}

QVValue QVConfigService::defaultOrientation() { return coreNumber(keys::kDefaultOrientation, 0); }

}  // namespace qv
