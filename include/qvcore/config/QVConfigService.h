#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Holds one configuration dictionary per module, keyed by the module's class
// name, built from the files of the module's settings bundle and from items
// handed in early through QVCore; reads and changes single items; and offers
// the typed accessors of the core's own configuration (module "QVCore").
//
// Settings bundle files, each name preceded by the bundle's prefix (see
// prefixForModuleBundleName): "BasicConfig.plist" (XML or binary property
// list), "AdvancedConfig.json" and, for the prefix "Brevant" only,
// "LayoutConfig.json". Later sources win: plist < advanced < layout < items
// handed in through QVCore before the module was loaded.
//
// Threads: every operation may be called from any thread. The dictionaries
// are shared: getConfig gives the live one, which updateConfigWithData and
// setConfigItemForKeyWithValueForModule change in place. The service guards
// the map and the dictionaries' contents with a small internal mutex that is
// never held while other code runs; a caller that reads a dictionary obtained
// from getConfig while other threads change it should read items through
// getConfigItemForLifecycleObject instead, which copies under that mutex.
class QV_EXPORT QVConfigService : public QVLifecycleObject {
 public:
  using ModuleRef = std::shared_ptr<QVLifecycleObject>;
  using Configurations = std::map<std::string, QVDictionaryRef>;

  static std::shared_ptr<QVConfigService> sharedInstance();

  // QVLifecycleObject. enable and disable only flip the flag; configurations
  // stay loaded across both.
  std::string className() const override { return "QVConfigService"; }
  bool enable() override;
  bool disable() override;
  bool isEnabled() const override;
  // The core's settings bundle (QVBundle::coreSettingsBundlePath).
  std::string settingsBundlePath() const override;

  // ---- loading ------------------------------------------------------------

  // True when the module has a configuration afterwards. A loaded module is
  // never re-read (unloadConfig first). Files that are missing, malformed,
  // or well formed but not a dictionary at their top level add nothing; the
  // other files still count. A load that finds no item at all fails with
  // nothing stored (the next read then tries again).
  bool loadConfig(const ModuleRef& module);
  void unloadConfig(const ModuleRef& module);

  // The dictionary of the bundle's basic property list; empty when the file
  // is missing or is not a property-list dictionary.
  QVValue plistConfigForBundle(const std::string& path) const;
  // The parsed advanced JSON file: an empty dictionary when the file is
  // missing, none when it is malformed or unreadable, otherwise the parsed
  // value as it is (which may be an array).
  std::optional<QVValue> jsonConfigForBundle(const std::string& path) const;
  // As jsonConfigForBundle for the layout file; an empty dictionary without
  // touching the disk unless the bundle's prefix is exactly "Brevant".
  std::optional<QVValue> layoutJsonConfigForBundle(const std::string& path) const;
  // "Brevant" for paths ending in "BRVResources.bundle" or
  // "TestModuleResources.bundle", "QVCore" for "QVCoreSettings.bundle", else
  // the empty string.
  std::string prefixForModuleBundleName(const std::string& path) const;
  // True only when a file, not a folder, exists at path.
  bool fileExistsAtFullPath(const std::string& path) const;

  // A snapshot of the map; the dictionaries in it are the live ones.
  Configurations configurations() const;
  void setConfigurations(Configurations configurations);

  // ---- reading and changing items ----------------------------------------

  // The module's live configuration, loading it on first use; null when it
  // has none.
  QVDictionaryRef getConfig(const ModuleRef& module);
  // A number that moves on every change made through the service (loads,
  // unloads, updates, saves, setConfigurations), so that a reader can keep
  // what it derived from items until it moves. A dictionary obtained from
  // getConfig and changed directly is not seen: change items through the
  // service.
  uint64_t generation() const;
  // Whether the module's configuration is stored now; never loads it.
  bool isConfigStored(const std::string& name) const;
  // The item as stored, or none; a stored JSON null counts as absent.
  std::optional<QVValue> getConfigItemForLifecycleObject(const std::string& key,
                                                         const ModuleRef& module);
  // Merges items into the loaded configuration, in memory only; false when
  // the module has no configuration or items is not a dictionary.
  bool updateConfigWithData(const ModuleRef& module, const QVValue& items);
  // Stores a string or number under key and asks the module to persist its
  // configuration (QVConfigurationSaver). The answer is the module's: a
  // module that cannot save keeps the value in memory but answers false.
  bool setConfigItemForKeyWithValueForModule(const std::string& key,
                                             const std::optional<QVValue>& value,
                                             const ModuleRef& module);
  QVDictionaryRef currentConfigurableItemsForLifecycleObject(const ModuleRef& module);
  // Makes items the module's whole configuration and asks the module to
  // persist it; false, changing nothing, when the module cannot save.
  bool saveCurrentConfigurableItemsForLifeCycleObject(const QVDictionaryRef& items,
                                                      const ModuleRef& module);

  // ---- typed readers --------------------------------------------------------

  // The item's boolean value when it is a number (booleans included);
  // otherwise, strings included whatever they say, the default.
  bool getConfigItemAsBoolWithDefaultForModuleName(const std::string& key, bool defaultValue,
                                                   const ModuleRef& module);
  // The item when it is a number, otherwise the default.
  QVValue getNumberItemForWithDefaultForModule(const std::string& key, const QVValue& defaultValue,
                                               const ModuleRef& module);

  // ---- accessors of the core's configuration ---------------------------------

  bool isManualPostingEnabled();                 // "ManualPostEnabled", true
  bool isCompressPostMessageEnabled();           // "CompressPostMessage", see the source
  QVValue cachingLevel();                        // "CachingLevel", 3
  bool isDoPostOnIntervalsEnabled();             // "DoPostOnIntervals", true
  bool isHasToPersistLocalCacheEnabled();        // "HasToPersistLocalCache", true
  QVValue loggingLevel();                        // "LoggingLevel", 3
  QVValue postMessageLevelCellular();            // "PostMessageLevelCellular", 3
  QVValue postMessageLevelWifi();                // "PostMessageLevelWiFi", 3
  QVValue postMessageTimeIntervals();            // "PostMessageTimeIntervals", 30
  bool isDoPostAppComesFromBackgroundEnabled();  // "DoPostAppComesFromBackground", false
  bool isDoPostAppGoesToBackgroundEnabled();     // "DoPostAppGoesToBackground", true
  bool isDoPostAppGoesToCloseEnabled();          // "DoPostAppGoesToClose", false
  bool isDoPostAppIsLaunchedEnabled();           // "DoPostAppIsLaunched", true
  bool isDoPostOnScreenChangeEnabled();          // "DoPostOnScreenChange", true
  bool isDynamicConfigurationEnabled();          // "DynamicConfigurationEnabled", true
  QVValue cachedFileMaxBytesSize();              // "CachedFileMaxBytesSize", 512000
  QVValue postMessageMaxBytesSize();             // "PostMessageMaxBytesSize", 200000
  QVValue postMessageTimeout();                  // "PostMessageTimeout", 5
  QVValue criticalBatteryLevel();                // "CriticalBatteryLevel", 0.2
  std::optional<QVValue> libraryVersion();       // "LibraryVersion", raw
  std::optional<QVValue> messageVersion();       // "MessageVersion", raw

  // ---- accessors of a module's own configuration ----------------------------

  // The module's "URLEncoded", raw: no module or no item is false. The one
  // reader of the item, so that the flush that splits a queue and the
  // connection that encodes it always agree.
  bool isURLEncodedForModule(const ModuleRef& module);
  bool turnOffCorrectOrientationUpdates();  // "TurnOffCorrectOrientationUpdates", false
  QVValue defaultOrientation();             // "DefaultOrientation", 0

  QVConfigService(const QVConfigService&) = delete;
  QVConfigService& operator=(const QVConfigService&) = delete;
  ~QVConfigService() override;

 private:
  struct Impl;

  QVConfigService();

  QVDictionaryRef storedConfig(const std::string& name) const;
  bool storeLoadedConfig(const std::string& name, QVValue merged, const QVValue& pending);
  QVValue mergedFileConfig(const std::string& path) const;
  std::string configFilePath(const std::string& path, const char* baseName) const;
  std::optional<QVValue> basicPlistFileConfig(const std::string& path) const;
  std::optional<QVValue> jsonFileConfig(const std::string& path, const char* baseName) const;
  std::optional<QVValue> coreItem(const char* key);
  void changedLocked();
  bool coreBool(const char* key, bool defaultValue);
  QVValue coreNumber(const char* key, const QVValue& defaultValue);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
