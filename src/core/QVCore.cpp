#include "qvcore/core/QVCore.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <exception>

#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVNotificationCenter.h"

namespace qv {

namespace {
const char* const kNetworkChangeNotification =
    "kQVEnvironmentalServiceDidPostNetworkChangeNotification";
}  // namespace

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
  return enabled_;
}

// The configuration, environmental and queue services start here in that
// order, each only when the one before it started. None of them is part of
// this build yet, so the core cannot report itself enabled.
bool QVCore::startCoreServices() { return false; }

void QVCore::observeNetworkChanges() {
  // Registered again on every enable and never removed, so repeated enables
  // deliver the change once per registration.
  QVNotificationCenter::defaultCenter().addObserver(
      this, kNetworkChangeNotification, nullptr,
      [this](const QVNotification& n) { networkConnectivityHasChanged(n); });
}

bool QVCore::disable() {
  const bool slept = sleepSystem();
  // The environmental service stops here once it is part of the build.
  const bool environmentStopped = false;
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
  // The queue and configuration services are stopped here, unconditionally,
  // once they are part of the build; until then stopping them cannot succeed.
  const bool queueStopped = false;
  const bool configStopped = false;
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
  // The module is registered once its configuration has loaded; the
  // configuration service is not part of this build yet, so a started module
  // stays unregistered, as one without configuration files does.
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
  if (!classReferences_) classReferences_ = std::make_shared<ModuleRegistry>();
  (*classReferences_)[name] = std::move(module);
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
  // Admitted messages go to the queue service, which is not part of this
  // build yet: nothing can be queued.
  (void)sessionID;
  return false;
}

bool QVCore::canPostMessage(const QVMessage* message) const {
  if (!message) return false;
  try {
    // The level is compared as an unsigned 32-bit value widened to 64 bits.
    const auto level = static_cast<uint32_t>(message->logLevel());
    if (level == 0) return false;
    // The limit is the raw "PostMessageLevelWiFi" or "PostMessageLevelCellular"
    // item of the core's configuration; without the configuration service no
    // item exists and a missing item lets nothing pass.
    const int64_t limit = 0;
    return static_cast<int64_t>(level) <= limit;
  } catch (const std::exception&) {
    return false;
  }
}

void QVCore::flushQueues() {
  // Flushing belongs to the queue service, which is not part of this build yet.
}

void QVCore::flushCompleted() {
  // Signals the crash hook's wait once that hook is part of the build.
}

std::string QVCore::currentSessionID() {
  std::lock_guard lock(sessionMutex_);
  if (!currentSessionID_) currentSessionID_ = generateUUID();
  return *currentSessionID_;
}

std::string QVCore::generateUUID() const {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  std::string id(text);
  id.erase(std::remove(id.begin(), id.end(), '-'), id.end());
  return id;
}

int64_t QVCore::getCurrentSessionStartTimeforModuleName(const std::string& name) const {
  // Session start times live in the queue service, not part of this build yet.
  (void)lifecycleObjectForName(name);
  return 0;
}

void QVCore::networkConnectivityHasChanged(const QVNotification&) {
  // Without the environmental service the network status reads as unknown,
  // which maps to level 1.
  currentLoggingLevel_ = 1;
}

std::optional<QVCore::ModuleRegistry> QVCore::classReferences() const {
  std::lock_guard lock(registryMutex_);
  if (!classReferences_) return std::nullopt;
  return *classReferences_;
}

std::string QVCore::settingsBundlePath() const { return {}; }

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
