#include "qvcore/core/QVCore.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "core/QVDeliveryLedger.h"
#include "core/QVTerminationHooks.h"
#include "platform/host/QVSwallowed.h"
#include "qvcore/config/QVConfigKeys.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVUUID.h"
#include "qvcore/queue/QVQueueService.h"

namespace qv {

namespace {
const char* const kNetworkChangeNotification =
    "kQVEnvironmentalServiceDidPostNetworkChangeNotification";

// The services are never destroyed, so the posting path keeps one reference
// to each instead of copying a shared pointer (two atomic operations on a
// count that every posting thread shares) several times per message.
const std::shared_ptr<QVConfigService>& configService() {
  static const auto* service =
      new std::shared_ptr<QVConfigService>(QVConfigService::sharedInstance());
  return *service;
}

const std::shared_ptr<QVQueueService>& queueService() {
  static const auto* service =
      new std::shared_ptr<QVQueueService>(QVQueueService::sharedInstance());
  return *service;
}

// The core as the module whose configuration holds the posting levels.
const std::shared_ptr<QVLifecycleObject>& coreModule() {
  static const auto* core = new std::shared_ptr<QVLifecycleObject>(QVCore::sharedInstance());
  return *core;
}

// The environmental service answers Wi-Fi from this manager, which it never
// replaces; the gate asks it directly.
const QVNetworkManager& networkManager() {
  static const auto* manager =
      new std::shared_ptr<QVNetworkManager>(QVNetworkManager::sharedInstance());
  return **manager;
}

// The gate's limit for one network: the raw item, not the defaulted
// accessor, so that a missing limit is 0 and lets nothing pass (a level is
// never below 1); an item that cannot be read lets nothing pass either.
int64_t postingLimit(const char* key) {
  try {
    const auto item = configService()->getConfigItemForLifecycleObject(key, coreModule());
    return item ? QVValues::integerValue(*item) : 0;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return 0;
  }
}

struct PostingLimits {
  uint64_t generation = 0;  // of the configuration service; it starts at 1
  int64_t wifi = 0;
  int64_t cellular = 0;
};

// Each thread keeps the two limits it read last, as long as the
// configuration service reports no change: reading them costs two locks, a
// map lookup and a copy of each item. A configuration that is not stored is
// not kept, so that every post tries to load it again, as a read would.
const PostingLimits& postingLimits() {
  thread_local PostingLimits limits;
  const uint64_t now = configService()->generation();
  if (limits.generation == now) return limits;
  limits = {0, postingLimit(QVConfigKeys::kPostMessageLevelWiFi),
            postingLimit(QVConfigKeys::kPostMessageLevelCellular)};
  if (configService()->isConfigStored(coreModule()->className()) &&
      configService()->generation() == now) {
    limits.generation = now;
  }
  return limits;
}

// A core that will not start leaves a host with nothing but false; one line
// says why. Once a process, as a host may retry enable in a loop.
bool enableFailed(const std::string& reason) {
  static std::atomic<bool> logged{false};
  if (!logged.exchange(true)) QVLog::log("QVCore: enable failed: " + reason);
  return false;
}

std::string joined(const std::vector<std::string>& folders) {
  std::string text;
  for (const auto& folder : folders) text += (text.empty() ? "" : ", ") + folder;
  return text;
}

// Why the core's own configuration came out empty: no bundle, or a bundle
// without a readable file.
std::string coreSettingsProblem() {
  const std::string path = QVBundle::coreSettingsBundlePath();
  if (path.empty()) {
    return "no QVCoreSettings.bundle in the main bundle (" + QVBundle::mainBundlePath() +
           ") nor in " + joined(QVBundle::libraryBundle()->resourceFolders());
  }
  return path + " holds no readable QVCoreBasicConfig.plist or QVCoreAdvancedConfig.json";
}
}  // namespace

QV_REGISTER_MODULE(QVCore);

std::shared_ptr<QVCore> QVCore::sharedInstance() {
  // Never destroyed: modules and the crash hook may reach the core while the
  // process is tearing down its statics.
  static auto* instance = new std::shared_ptr<QVCore>(new QVCore);
  return *instance;
}

QVCore::QVCore() = default;
QVCore::~QVCore() = default;

bool QVCore::enable() {
  publishRegistry(std::make_shared<const ModuleRegistry>());
  enabled_ = startCoreServices();
  observeNetworkChanges();
  setUncaughtExceptionHandler();
  return enabled_;
}

// Each service starts only when the one before it started.
bool QVCore::startCoreServices() {
  auto config = QVConfigService::sharedInstance();
  if (!config->enable()) return enableFailed("the configuration service did not start");
  if (!config->loadConfig(sharedInstance())) return enableFailed(coreSettingsProblem());
  if (!QVEnvironmentalSerivce::sharedInstance()->enable()) {
    return enableFailed("the environmental service did not start");
  }
  if (!QVQueueService::sharedInstance()->enable()) {
    return enableFailed("the queue service did not start");
  }
  return true;
}

void QVCore::observeNetworkChanges() {
  // Registered again on every enable and never removed, so repeated enables
  // deliver the change once per registration.
  QVNotificationCenter::defaultCenter().addObserver(
      this, kNetworkChangeNotification, nullptr,
      [this](const QVNotification& n) { networkConnectivityHasChanged(n); });
}

bool QVCore::disable() {
  const bool slept = sleepSystem();
  const bool environmentStopped = QVEnvironmentalSerivce::sharedInstance()->disable();
  const bool stopped = slept && environmentStopped;
  if (stopped) publishRegistry(nullptr);
  enabled_ = !stopped;
  return stopped;
}

bool QVCore::sleepSystem() {
  bool result = true;
  if (auto registry = classReferences()) {
    for (const auto& [name, module] : *registry) result = disableModule(name) && result;
  }
  const bool queueStopped = QVQueueService::sharedInstance()->disable();
  const bool configStopped = QVConfigService::sharedInstance()->disable();
  return result && queueStopped && configStopped;
}

bool QVCore::wakeSystem() {
  std::vector<std::string> names;
  if (auto registry = classReferences()) {
    for (const auto& entry : *registry) names.push_back(entry.first);
  }
  bool result = enable();
  for (const auto& name : names) result = enableModule(name) && result;
  return result;
}

void QVCore::batteryLevelChanged(int64_t level) {
  if (level == 1) {
    wakeSystem();
  } else if (level == 0) {
    sleepSystem();
  }
}

bool QVCore::enableModule(const std::string& name) {
  if (!isEnabled() && !enable()) return false;
  return startModule(name);
}

bool QVCore::startModule(const std::string& name) {
  auto module = lifecycleObjectForName(name);
  if (!module) return false;
  if (!module->isEnabled() && !module->enable()) return false;
  // A module without configuration is started but deliberately left out of
  // the registry: it is then not reached by sleep, wake or the crash hook.
  if (QVConfigService::sharedInstance()->loadConfig(module)) registerModule(name, module);
  return true;
}

bool QVCore::disableModule(const std::string& name) {
  auto module = lifecycleObjectForName(name);
  if (module && module->isEnabled()) return module->disable();
  return true;
}

void QVCore::publishRegistry(std::shared_ptr<const ModuleRegistry> registry) {
  {
    std::lock_guard lock(registryMutex_);
    registry.swap(classReferences_);
    registryGeneration_.fetch_add(1, std::memory_order_release);
  }
  // The registry replaced goes here, outside the lock: it may hold the last
  // reference to a module.
}

void QVCore::registerModule(const std::string& name, std::shared_ptr<QVLifecycleObject> module) {
  std::shared_ptr<const ModuleRegistry> replaced;
  std::lock_guard lock(registryMutex_);
  // Before the first enable and after a full disable there is no registry,
  // and a started module is not recorded anywhere.
  if (!classReferences_) return;
  // Copied, never changed in place: threads read the registry they last
  // saw without the lock.
  auto registry = std::make_shared<ModuleRegistry>(*classReferences_);
  (*registry)[name] = std::move(module);
  replaced = std::exchange(classReferences_, std::move(registry));
  registryGeneration_.fetch_add(1, std::memory_order_release);
}

std::shared_ptr<const QVCore::ModuleRegistry> QVCore::registry() const {
  std::lock_guard lock(registryMutex_);
  return classReferences_;
}

// Each thread keeps the registry it read last and takes the lock only when
// the generation moved, so that posting threads do not share a lock or a
// reference count. The reference is valid until the thread reads again.
const QVCore::ModuleRegistry* QVCore::threadRegistry() const {
  struct Seen {
    const QVCore* core = nullptr;
    uint64_t generation = 0;
    std::shared_ptr<const ModuleRegistry> registry;
  };
  thread_local Seen seen;
  const uint64_t now = registryGeneration_.load(std::memory_order_acquire);
  if (seen.core != this || seen.generation != now) {
    std::shared_ptr<const ModuleRegistry> current;
    {
      std::lock_guard lock(registryMutex_);
      current = classReferences_;
      seen.generation = registryGeneration_.load(std::memory_order_relaxed);
    }
    seen.core = this;
    seen.registry.swap(current);
  }
  return seen.registry.get();
}

const std::shared_ptr<QVLifecycleObject>* QVCore::registeredModuleOfThread(
    const std::string& name) const {
  const ModuleRegistry* registry = threadRegistry();
  if (!registry) return nullptr;
  const auto it = registry->find(name);
  return it == registry->end() || !it->second ? nullptr : &it->second;
}

std::shared_ptr<QVLifecycleObject> QVCore::registeredModule(const std::string& name) const {
  const auto* module = registeredModuleOfThread(name);
  return module ? *module : nullptr;
}

std::shared_ptr<QVLifecycleObject> QVCore::lifecycleObjectForName(const std::string& name) const {
  if (auto module = registeredModule(name)) return module;
  // Found by class name but not registered: the registry only grows through
  // startModule.
  return std::dynamic_pointer_cast<QVLifecycleObject>(
      QVClassRegistry::shared().sharedInstanceOfClass(name));
}

bool QVCore::postMessageForModuleName(std::shared_ptr<QVMessage> message, const std::string& name) {
  return postMessageForModuleNameWithSessionID(std::move(message), name, std::nullopt);
}

bool QVCore::postMessageForModuleNameWithSessionID(std::shared_ptr<QVMessage> message,
                                                   const std::string& name,
                                                   const std::optional<std::string>& sessionID) {
  // An accepted message is counted by the queue service, which holds the
  // module's ledger at hand.
  if (admitMessage(std::move(message), name, sessionID)) return true;
  QVDeliveryLedger::shared().module(name).addRefused();
  return false;
}

bool QVCore::admitMessage(std::shared_ptr<QVMessage> message, const std::string& name,
                          const std::optional<std::string>& sessionID) {
  if (!message || !canPostMessage(message.get())) return false;
  // A registered module is used by reference: no count shared with other
  // posting threads changes. The queue service copies it before anything
  // that could read the registry again.
  if (const auto* registered = registeredModuleOfThread(name)) {
    if (!(*registered)->isEnabled()) return false;
    return queueService()->postMessageForModuleWithSessionID(std::move(message), *registered,
                                                             sessionID);
  }
  auto module = lifecycleObjectForName(name);
  if (!module || !module->isEnabled()) return false;
  return queueService()->postMessageForModuleWithSessionID(std::move(message), module, sessionID);
}

bool QVCore::canPostMessage(const QVMessage* message) const {
  if (!message) return false;
  try {
    // The level is compared as an unsigned 32-bit value widened to 64 bits.
    const auto level = static_cast<uint32_t>(message->logLevel());
    if (level == 0) return false;
    const bool wifi = networkManager().isConnectedViaWifi();
    const PostingLimits& limits = postingLimits();
    return static_cast<int64_t>(level) <= (wifi ? limits.wifi : limits.cellular);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

void QVCore::flushQueues() { QVQueueService::sharedInstance()->asyncFlushQueues(); }

QVLedgerSnapshot QVCore::ledgerSnapshot() const { return queueService()->ledgerSnapshot(); }

std::optional<QVLedgerCounts> QVCore::ledgerSnapshotForModuleName(const std::string& name) const {
  QVLedgerSnapshot snapshot = ledgerSnapshot();
  const auto it = snapshot.modules.find(name);
  if (it == snapshot.modules.end()) return std::nullopt;
  return it->second;
}

void QVCore::resetLedger() { queueService()->resetLedger(); }

std::string QVCore::currentSessionID() {
  std::lock_guard lock(sessionMutex_);
  if (!currentSessionID_) currentSessionID_ = generateUUID();
  return *currentSessionID_;
}

std::string QVCore::generateUUID() const {
  std::string id = QVUUID::randomUUIDString();
  id.erase(std::remove(id.begin(), id.end(), '-'), id.end());
  return id;
}

int64_t QVCore::getCurrentSessionStartTimeforModuleName(const std::string& name) const {
  auto module = lifecycleObjectForName(name);
  if (!module) return 0;
  return static_cast<int64_t>(
      QVQueueService::sharedInstance()->getCurrentSessionStartTimeForModule(module));
}

void QVCore::networkConnectivityHasChanged(const QVNotification&) {
  auto config = QVConfigService::sharedInstance();
  std::optional<QVValue> value;
  switch (currentNetworkStatus()) {
    case 3:
      // Deliberately 2, not the cellular accessor's default of 3.
      value = config->getNumberItemForWithDefaultForModule(QVConfigKeys::kPostMessageLevelCellular,
                                                           2, sharedInstance());
      break;
    case 2:
      value = config->postMessageLevelWifi();
      break;
    default:
      value = 1;
  }
  currentLoggingLevel_ = value ? static_cast<int32_t>(QVValues::integerValue(*value)) : 1;
}

std::optional<QVCore::ModuleRegistry> QVCore::classReferences() const {
  const auto current = registry();
  if (!current) return std::nullopt;
  return *current;
}

std::string QVCore::settingsBundlePath() const { return QVBundle::coreSettingsBundlePath(); }

std::optional<QVValue> QVCore::getConfigItemForModuleName(const std::string& key,
                                                          const std::string& name) const {
  try {
    auto module = lifecycleObjectForName(name);
    if (!module) return std::nullopt;
    return QVConfigService::sharedInstance()->getConfigItemForLifecycleObject(key, module);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return std::nullopt;
  }
}

std::optional<QVValue> QVCore::getConfigItemAsNumberForModuleName(const std::string& key,
                                                                  const std::string& name) const {
  auto item = getConfigItemForModuleName(key, name);
  if (item && QVValues::isNumber(*item)) return item;
  return std::nullopt;
}

std::optional<QVValue> QVCore::getConfigItemAsStringForModuleName(const std::string& key,
                                                                  const std::string& name) const {
  auto item = getConfigItemForModuleName(key, name);
  if (item && item->is_string()) return item;
  return std::nullopt;
}

bool QVCore::getConfigItemAsBoolWithDefaultForModuleName(const std::string& key, bool defaultValue,
                                                         const std::string& name) const {
  try {
    auto module = lifecycleObjectForName(name);
    if (!module) return defaultValue;
    auto item = QVConfigService::sharedInstance()->getConfigItemForLifecycleObject(key, module);
    return item && QVValues::isNumber(*item) ? QVValues::boolValue(*item) : defaultValue;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return defaultValue;
  }
}

bool QVCore::updateConfigForModuleNameWithData(const std::string& name, const QVValue& items) {
  if (isEnabled()) {
    return QVConfigService::sharedInstance()->updateConfigWithData(lifecycleObjectForName(name),
                                                                   items);
  }
  if (!items.is_object()) return false;
  {
    std::lock_guard lock(tempConfigMutex_);
    QVValues::addEntriesFromDictionary(tempConfigDict_[name], items);
  }
  // Kept for the module's next load all the same.
  return false;
}

bool QVCore::reloadConfigForModuleName(const std::string& name) {
  auto module = lifecycleObjectForName(name);
  if (!module) return false;
  auto config = QVConfigService::sharedInstance();
  config->unloadConfig(module);
  return config->loadConfig(module);
}

std::optional<QVValue> QVCore::defaultLogLevel() const {
  // Raw, without the accessor's default.
  return getConfigItemAsNumberForModuleName(QVConfigKeys::kLoggingLevel, className());
}

QVValue QVCore::loggingLevel() const { return QVConfigService::sharedInstance()->loggingLevel(); }

bool QVCore::isDynamicConfigurationEnabled() const {
  return QVConfigService::sharedInstance()->isDynamicConfigurationEnabled();
}

bool QVCore::isManualPostEnabled() const {
  return QVConfigService::sharedInstance()->isManualPostingEnabled();
}

QVValue QVCore::tempConfigDict() const {
  std::lock_guard lock(tempConfigMutex_);
  return tempConfigDict_;
}

void QVCore::setTempConfigDict(QVValue dict) {
  std::lock_guard lock(tempConfigMutex_);
  tempConfigDict_ = dict.is_object() ? std::move(dict) : QVValue::object();
}

QVValue QVCore::takeTempConfigForModuleName(const std::string& name) {
  std::lock_guard lock(tempConfigMutex_);
  auto it = tempConfigDict_.find(name);
  if (it == tempConfigDict_.end()) return QVValue::object();
  QVValue pending = std::move(*it);
  *it = QVValue::object();
  return pending.is_object() ? pending : QVValue::object();
}

bool QVCore::installTerminationHooks() { return QVTerminationHooks::install(); }

}  // namespace qv
