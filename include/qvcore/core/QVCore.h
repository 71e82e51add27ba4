#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "qvcore/QVExport.h"
#include "qvcore/core/QVLedgerSnapshot.h"
#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/platform/QVNotification.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

class QVMessage;

// The one object through which modules use the framework: it starts and stops
// the core services, keeps the registry of started modules, gates posted
// messages and forwards them to the queue service.
class QV_EXPORT QVCore : public QVLifecycleObject {
 public:
  using ModuleRegistry = std::map<std::string, std::shared_ptr<QVLifecycleObject>>;

  static std::shared_ptr<QVCore> sharedInstance();

  // QVLifecycleObject
  std::string className() const override { return "QVCore"; }
  bool enable() override;
  bool disable() override;
  bool isEnabled() const override;
  std::string settingsBundlePath() const override;

  bool sleepSystem();
  bool wakeSystem();
  void batteryLevelChanged(int64_t level);

  bool enableModule(const std::string& name);
  bool startModule(const std::string& name);
  bool disableModule(const std::string& name);
  std::shared_ptr<QVLifecycleObject> lifecycleObjectForName(const std::string& name) const;

  bool postMessageForModuleName(std::shared_ptr<QVMessage> message, const std::string& name);
  bool postMessageForModuleNameWithSessionID(std::shared_ptr<QVMessage> message,
                                             const std::string& name,
                                             const std::optional<std::string>& sessionID);
  bool canPostMessage(const QVMessage* message) const;

  // The delivery ledger: per module class name, what became of every
  // message posted (accepted or refused) and of every message read back
  // from the cache, with what is queued and in flight now. Counted for the
  // life of the process: neither disable nor sleep resets it (the queued
  // messages stay too), and nothing of it survives a restart. A host that
  // wants to watch polls it; no notification is posted per change. Safe
  // from any thread; a snapshot taken while posts or a flush run may be
  // off balance by what is under way.
  QVLedgerSnapshot ledgerSnapshot() const;
  // One module's counts; none when nothing was counted for it.
  std::optional<QVLedgerCounts> ledgerSnapshotForModuleName(const std::string& name) const;
  // Zeroes the counts, for tests; see QVQueueService::resetLedger.
  void resetLedger();

  void flushQueues();
  // Ends the crash handler's wait for a flush; does nothing before a crash.
  void flushCompleted();
  // Installs the core's handler of uncaught exceptions, chained to the one
  // installed before it.
  void setUncaughtExceptionHandler();

  // How long the crash handler waits for its flush before it goes on as if
  // the flush had completed (calls the previous handler, then aborts). By
  // default it waits without a bound, which keeps a process alive for ever
  // when its flush reports no end (nothing to send, say). The
  // environment variable QVCORE_CRASH_FLUSH_TIMEOUT, in seconds (fractions
  // allowed, 0 for no wait; anything else is ignored), read once, at the
  // first enable or the first call of crashFlushTimeout, sets a bound;
  // this setter overrides the variable, and none restores the unbounded
  // wait. The bound covers the whole handling, including the runs of the
  // handler chained to itself by repeated enables.
  static void setCrashFlushTimeout(std::optional<std::chrono::milliseconds> timeout);
  // The bound in force; none when the wait is unbounded.
  static std::optional<std::chrono::milliseconds> crashFlushTimeout();

  // Opt-in for hosts on Linux, where no platform says "will terminate":
  // makes SIGTERM, SIGINT, SIGHUP and a normal exit (exit() or the return
  // from main, through atexit) post UIApplicationWillTerminateNotification
  // synchronously, so the lifecycle manager's termination path (saving every
  // queue when "DoPostAppGoesToClose" is on) completes before the process
  // ends. A signal is then handed back to the handler the host had before
  // and raised again; a signal the host ignores is left alone. The signal
  // handler only writes to a pipe; a watcher thread runs the path. Call
  // once, after installing the host's own handlers; later calls do nothing.
  // False when the hooks could not be set up.
  static bool installTerminationHooks();

  std::string currentSessionID();
  std::string generateUUID() const;
  int64_t getCurrentSessionStartTimeforModuleName(const std::string& name) const;
  void networkConnectivityHasChanged(const QVNotification& notification);

  // A snapshot of the registry of started modules; none before the first
  // enable and after a successful disable.
  std::optional<ModuleRegistry> classReferences() const;
  int32_t currentLoggingLevel() const;
  std::string frameworkVersion() const;

  // Configuration of modules by name. Reads of a module that cannot be found
  // give none (or the default); see QVApplicationHelper for the checked front.
  std::optional<QVValue> getConfigItemForModuleName(const std::string& key,
                                                    const std::string& name) const;
  std::optional<QVValue> getConfigItemAsNumberForModuleName(const std::string& key,
                                                            const std::string& name) const;
  std::optional<QVValue> getConfigItemAsStringForModuleName(const std::string& key,
                                                            const std::string& name) const;
  bool getConfigItemAsBoolWithDefaultForModuleName(const std::string& key, bool defaultValue,
                                                   const std::string& name) const;
  // While the core is not enabled the items are kept for the module's next
  // load and the answer is false.
  bool updateConfigForModuleNameWithData(const std::string& name, const QVValue& items);
  bool reloadConfigForModuleName(const std::string& name);
  std::optional<QVValue> defaultLogLevel() const;
  QVValue loggingLevel() const;
  bool isDynamicConfigurationEnabled() const;
  bool isManualPostEnabled() const;

  // Items handed in before the core was enabled: module name to a dictionary
  // of pending items. Reads and writes of the whole dictionary are atomic.
  QVValue tempConfigDict() const;
  void setTempConfigDict(QVValue dict);
  // Takes the pending items of one module and leaves an empty dictionary in
  // their place, in one step, so that an item handed in meanwhile is not lost.
  QVValue takeTempConfigForModuleName(const std::string& name);

  // Device and application facts, answered by the environmental service
  // exactly as it gives them.
  int64_t deviceTotalStorageCapacity() const;
  int64_t deviceTotalStorageFreeCapacity() const;
  uint64_t deviceTotalMemory() const;
  uint64_t deviceUserMemory() const;
  // 0 unknown, 1 not reachable, 2 Wi-Fi, 3 cellular.
  int64_t currentNetworkStatus() const;
  std::string currentNetworkReachabilityName() const;
  std::string currentConnectionType() const;
  std::string networkCarrierName() const;
  std::string networkWiFiIPAddress() const;
  std::string networkIPAddress() const;
  std::optional<std::string> appVersion() const;
  std::string appVersionMajorMinor() const;
  std::optional<std::string> appName() const;
  std::string deviceID() const;
  int64_t currentDeviceOrientation() const;
  int64_t currentDeviceOrientationInDegrees() const;
  int64_t currentUIOrientation() const;
  int64_t currentUIOrientationInDegrees() const;
  std::string currentOrientationName() const;
  std::pair<double, double> currentScreenDimensions() const;
  float getCurrentBatteryLevel() const;
  std::string setUserAgentFromBrowser() const;
  std::string getUserAgentFromBrowser() const;
  bool setQVAdvertisingId(std::optional<std::string> advertisingId) const;
  std::optional<std::string> getQVAdvertisingId() const;
  // The gzip form of data, or data itself when it cannot be compressed.
  std::shared_ptr<const std::string> compressData(
      const std::shared_ptr<const std::string>& data) const;

  QVCore(const QVCore&) = delete;
  QVCore& operator=(const QVCore&) = delete;
  ~QVCore() override;

 private:
  QVCore();

  // Private state lives behind the pointer, so that it can change without
  // changing this class's layout.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
