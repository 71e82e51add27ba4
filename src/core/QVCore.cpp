#include "qvcore/core/QVCore.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/QVDeliveryLedger.h"
#include "core/QVModuleRegistry.h"
#include "core/QVPostingGate.h"
#include "core/QVTerminationHooks.h"
#include "platform/host/QVSwallowed.h"
#include "qvcore/config/QVConfigKeys.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
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

// The queue service is never destroyed, so the posting path keeps one
// reference to it instead of copying a shared pointer (two atomic operations
// on a count that every posting thread shares) on every post.
const std::shared_ptr<QVQueueService>& queueService() {
  static const auto* service =
      new std::shared_ptr<QVQueueService>(QVQueueService::sharedInstance());
  return *service;
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

// Each service starts only when the one before it started.
bool startCoreServices() {
  auto config = QVConfigService::sharedInstance();
  if (!config->enable()) return enableFailed("the configuration service did not start");
  if (!config->loadConfig(QVCore::sharedInstance())) return enableFailed(coreSettingsProblem());
  if (!QVEnvironmentalSerivce::sharedInstance()->enable()) {
    return enableFailed("the environmental service did not start");
  }
  if (!QVQueueService::sharedInstance()->enable()) {
    return enableFailed("the queue service did not start");
  }
  return true;
}

// The posting path, refusals uncounted.
bool admitMessage(const QVCore& core, const QVModuleRegistry& registry,
                  std::shared_ptr<QVMessage> message, const std::string& name,
                  const std::optional<std::string>& sessionID) {
  if (!message || !QVPostingGate::admits(message.get())) return false;
  // A registered module is used by reference: no count shared with other
  // posting threads changes. The queue service copies it before anything
  // that could read the registry again.
  if (const auto* registered = registry.findOfThread(name)) {
    if (!(*registered)->isEnabled()) return false;
    return queueService()->postMessageForModuleWithSessionID(std::move(message), *registered,
                                                             sessionID);
  }
  auto module = core.lifecycleObjectForName(name);
  if (!module || !module->isEnabled()) return false;
  return queueService()->postMessageForModuleWithSessionID(std::move(message), module, sessionID);
}
}  // namespace

struct QVCore::Impl {
  std::atomic<bool> enabled{false};
  std::atomic<int32_t> currentLoggingLevel{0};
  QVModuleRegistry registry;

  std::mutex sessionMutex;
  std::optional<std::string> currentSessionID;  // guarded by sessionMutex

  mutable std::mutex tempConfigMutex;
  QVValue tempConfigDict = QVValue::object();  // guarded by tempConfigMutex
};

QV_REGISTER_MODULE(QVCore);

std::shared_ptr<QVCore> QVCore::sharedInstance() {
  // Never destroyed: modules and the crash hook may reach the core while the
  // process is tearing down its statics.
  static auto* instance = new std::shared_ptr<QVCore>(new QVCore);
  return *instance;
}

QVCore::QVCore() : impl_(std::make_unique<Impl>()) {}
QVCore::~QVCore() = default;

bool QVCore::isEnabled() const { return impl_->enabled.load(); }

int32_t QVCore::currentLoggingLevel() const { return impl_->currentLoggingLevel.load(); }

bool QVCore::enable() {
  impl_->registry.reset(std::make_shared<const ModuleRegistry>());
  const bool enabled = startCoreServices();
  impl_->enabled = enabled;
  // Registered again on every enable and never removed, so repeated enables
  // deliver the change once per registration.
  QVNotificationCenter::defaultCenter().addObserver(
      this, kNetworkChangeNotification, nullptr,
      [this](const QVNotification& n) { networkConnectivityHasChanged(n); });
  setUncaughtExceptionHandler();
  return enabled;
}

bool QVCore::disable() {
  const bool slept = sleepSystem();
  const bool environmentStopped = QVEnvironmentalSerivce::sharedInstance()->disable();
  const bool stopped = slept && environmentStopped;
  if (stopped) impl_->registry.reset(nullptr);
  impl_->enabled = !stopped;
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
  if (QVConfigService::sharedInstance()->loadConfig(module)) impl_->registry.add(name, module);
  return true;
}

bool QVCore::disableModule(const std::string& name) {
  auto module = lifecycleObjectForName(name);
  if (module && module->isEnabled()) return module->disable();
  return true;
}

std::shared_ptr<QVLifecycleObject> QVCore::lifecycleObjectForName(const std::string& name) const {
  if (const auto* module = impl_->registry.findOfThread(name)) return *module;
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
  if (admitMessage(*this, impl_->registry, std::move(message), name, sessionID)) return true;
  QVDeliveryLedger::shared().module(name).addRefused();
  return false;
}

bool QVCore::canPostMessage(const QVMessage* message) const {
  return QVPostingGate::admits(message);
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
  std::lock_guard lock(impl_->sessionMutex);
  if (!impl_->currentSessionID) impl_->currentSessionID = generateUUID();
  return *impl_->currentSessionID;
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
  impl_->currentLoggingLevel = value ? static_cast<int32_t>(QVValues::integerValue(*value)) : 1;
}

std::optional<QVCore::ModuleRegistry> QVCore::classReferences() const {
  const auto current = impl_->registry.current();
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
    std::lock_guard lock(impl_->tempConfigMutex);
    QVValues::addEntriesFromDictionary(impl_->tempConfigDict[name], items);
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
  std::lock_guard lock(impl_->tempConfigMutex);
  return impl_->tempConfigDict;
}

void QVCore::setTempConfigDict(QVValue dict) {
  std::lock_guard lock(impl_->tempConfigMutex);
  impl_->tempConfigDict = dict.is_object() ? std::move(dict) : QVValue::object();
}

QVValue QVCore::takeTempConfigForModuleName(const std::string& name) {
  std::lock_guard lock(impl_->tempConfigMutex);
  auto it = impl_->tempConfigDict.find(name);
  if (it == impl_->tempConfigDict.end()) return QVValue::object();
  QVValue pending = std::move(*it);
  *it = QVValue::object();
  return pending.is_object() ? pending : QVValue::object();
}

bool QVCore::installTerminationHooks() { return QVTerminationHooks::install(); }

}  // namespace qv
