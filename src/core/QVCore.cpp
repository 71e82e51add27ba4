#include "qvcore/core/QVCore.h"

#include <algorithm>
#include <exception>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVClassRegistry.h"
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
  {
    std::lock_guard lock(registryMutex_);
    classReferences_ = std::make_shared<ModuleRegistry>();
  }
  enabled_ = startCoreServices();
  observeNetworkChanges();
  setUncaughtExceptionHandler();
  return enabled_;
}

// Each service starts only when the one before it started.
bool QVCore::startCoreServices() {
  auto config = QVConfigService::sharedInstance();
  if (!config->enable()) return false;
  if (!config->loadConfig(sharedInstance())) return false;
  if (!QVEnvironmentalSerivce::sharedInstance()->enable()) return false;
  return QVQueueService::sharedInstance()->enable();
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
  if (stopped) {
    std::lock_guard lock(registryMutex_);
    classReferences_.reset();
  }
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

std::shared_ptr<QVLifecycleObject> QVCore::registeredModule(const std::string& name) const {
  std::lock_guard lock(registryMutex_);
  if (!classReferences_) return nullptr;
  auto it = classReferences_->find(name);
  return it == classReferences_->end() ? nullptr : it->second;
}

void QVCore::registerModule(const std::string& name, std::shared_ptr<QVLifecycleObject> module) {
  std::lock_guard lock(registryMutex_);
  // Before the first enable and after a full disable there is no registry,
  // and a started module is not recorded anywhere.
  if (classReferences_) (*classReferences_)[name] = std::move(module);
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
  if (!message || !canPostMessage(message.get())) return false;
  auto module = lifecycleObjectForName(name);
  if (!module || !module->isEnabled()) return false;
  return queueService()->postMessageForModuleWithSessionID(std::move(message), std::move(module),
                                                           sessionID);
}

bool QVCore::canPostMessage(const QVMessage* message) const {
  if (!message) return false;
  try {
    // The level is compared as an unsigned 32-bit value widened to 64 bits.
    const auto level = static_cast<uint32_t>(message->logLevel());
    if (level == 0) return false;
    // The raw item, not the defaulted accessor: a missing limit is 0 and lets
    // nothing pass.
    const char* key = isConnectedViaWifi() ? "PostMessageLevelWiFi" : "PostMessageLevelCellular";
    const auto item = configService()->getConfigItemForLifecycleObject(key, coreModule());
    const int64_t limit = item ? QVValues::integerValue(*item) : 0;
    return static_cast<int64_t>(level) <= limit;
  } catch (const std::exception&) {
    return false;
  }
}

void QVCore::flushQueues() { QVQueueService::sharedInstance()->asyncFlushQueues(); }

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
      value = config->getNumberItemForWithDefaultForModule("PostMessageLevelCellular", 2,
                                                           sharedInstance());
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
  std::lock_guard lock(registryMutex_);
  if (!classReferences_) return std::nullopt;
  return *classReferences_;
}

std::string QVCore::settingsBundlePath() const { return QVBundle::coreSettingsBundlePath(); }

std::optional<QVValue> QVCore::getConfigItemForModuleName(const std::string& key,
                                                          const std::string& name) const {
  try {
    auto module = lifecycleObjectForName(name);
    if (!module) return std::nullopt;
    return QVConfigService::sharedInstance()->getConfigItemForLifecycleObject(key, module);
  } catch (const std::exception&) {
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
  } catch (const std::exception&) {
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
  return getConfigItemAsNumberForModuleName("LoggingLevel", className());
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

}  // namespace qv
