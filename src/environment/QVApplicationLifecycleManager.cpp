#include "qvcore/environment/QVApplicationLifecycleManager.h"

#include <atomic>
#include <chrono>
#include <exception>

#include "platform/host/QVSwallowed.h"
#include "qvcore/config/QVConfigKeys.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVGlobalQueue.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"

namespace qv {

namespace {

const char* const kBackgroundTaskName = "BRVPostInBackground";
constexpr std::chrono::seconds kLaunchFlushDelay{1};

// An item of the core's configuration read raw as a boolean; missing, or not
// readable, is false.
bool coreFlag(const char* key) {
  try {
    const auto item = QVConfigService::sharedInstance()->getConfigItemForLifecycleObject(
        key, QVCore::sharedInstance());
    return item && QVValues::boolValue(*item);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

void backgroundTimeExpired(QVApplicationLifecycleManager& manager,
                           std::atomic<QVBackgroundTaskIdentifier>& task) {
  QVApplication& application = QVApplication::sharedApplication();
  QVLog::logFormat("Background Time:%f", application.backgroundTimeRemaining());
  QVQueueService::sharedInstance()->flushBRVApplicationWillTerminateQueues();
  application.endBackgroundTask(task.load());
  task.store(kUIBackgroundTaskInvalid);
  // The second end, of the invalid identifier, does nothing and is
  // deliberate.
  application.endBackgroundTask(task.load());
  task.store(kUIBackgroundTaskInvalid);
  manager.setIsBackgroundPostingRunning(false);
}

}  // namespace

struct QVApplicationLifecycleManager::Impl {
  std::atomic<bool> isBackgroundPostingRunning_{false};
};

std::shared_ptr<QVApplicationLifecycleManager> QVApplicationLifecycleManager::init() {
  return std::shared_ptr<QVApplicationLifecycleManager>(new QVApplicationLifecycleManager);
}

QVApplicationLifecycleManager::QVApplicationLifecycleManager() : impl_(std::make_unique<Impl>()) {}

QVApplicationLifecycleManager::~QVApplicationLifecycleManager() {
  // The registrations are keyed by this address; a later object at the same
  // address must not inherit them.
  QVNotificationCenter::defaultCenter().removeObserver(this);
}

bool QVApplicationLifecycleManager::isBackgroundPostingRunning() const {
  return impl_->isBackgroundPostingRunning_.load();
}

void QVApplicationLifecycleManager::setIsBackgroundPostingRunning(bool running) {
  impl_->isBackgroundPostingRunning_.store(running);
}

bool QVApplicationLifecycleManager::startMonitoringApplicationChanges() {
  // The background item alone goes through its accessor, so that it is on
  // when the configuration does not mention it.
  if (QVConfigService::sharedInstance()->isDoPostAppGoesToBackgroundEnabled()) {
    observe(UIApplicationDidEnterBackgroundNotification,
            &QVApplicationLifecycleManager::brvApplicationDidEnterBackground);
  }
  if (coreFlag(QVConfigKeys::kDoPostAppComesFromBackground)) {
    observe(UIApplicationWillEnterForegroundNotification,
            &QVApplicationLifecycleManager::brvApplicationWillEnterForeground);
  }
  if (coreFlag(QVConfigKeys::kDoPostAppIsLaunched)) {
    observe(UIApplicationDidBecomeActiveNotification,
            &QVApplicationLifecycleManager::brvApplicationDidBecomeActive);
  }
  if (coreFlag(QVConfigKeys::kDoPostAppGoesToClose)) {
    observe(UIApplicationWillTerminateNotification,
            &QVApplicationLifecycleManager::brvApplicationWillTerminate);
  }
  impl_->isBackgroundPostingRunning_.store(false);
  return true;
}

void QVApplicationLifecycleManager::observe(const char* name, Handler handler) {
  // The callback holds the manager only while it runs, so dropping the last
  // owner never races a notification in flight.
  QVNotificationCenter::defaultCenter().addObserver(
      this, name, nullptr, [weak = weak_from_this(), handler](const QVNotification& n) {
        if (auto self = weak.lock()) ((*self).*handler)(n);
      });
}

bool QVApplicationLifecycleManager::stopMonitoringApplicationChanges() {
  QVNotificationCenter& center = QVNotificationCenter::defaultCenter();
  for (const char* name :
       {UIApplicationDidEnterBackgroundNotification, UIApplicationWillEnterForegroundNotification,
        UIApplicationDidBecomeActiveNotification, UIApplicationWillTerminateNotification}) {
    center.removeObserver(this, name, nullptr);
  }
  center.removeObserver(this);
  impl_->isBackgroundPostingRunning_.store(false);
  return true;
}

void QVApplicationLifecycleManager::brvApplicationDidEnterBackground(const QVNotification&) {
  if (!coreFlag(QVConfigKeys::kDoPostAppGoesToBackground)) return;
  impl_->isBackgroundPostingRunning_.store(true);
  // The expiration handler reads and changes the identifier, and holds the
  // manager until it has run, as the task may outlive every other owner.
  auto task = std::make_shared<std::atomic<QVBackgroundTaskIdentifier>>(kUIBackgroundTaskInvalid);
  task->store(QVApplication::sharedApplication().beginBackgroundTaskWithNameExpirationHandler(
      kBackgroundTaskName,
      [self = shared_from_this(), task] { backgroundTimeExpired(*self, *task); }));
  // Nothing is sent here: the queues go when the granted time runs out. The
  // empty unit of work on the global queue is deliberate and stays.
  QVGlobalQueue::async([] {});
}

void QVApplicationLifecycleManager::brvApplicationWillEnterForeground(const QVNotification&) {
  if (coreFlag(QVConfigKeys::kDoPostAppComesFromBackground)) {
    QVQueueService::sharedInstance()->asyncFlushQueues();
  }
}

void QVApplicationLifecycleManager::brvApplicationDidBecomeActive(const QVNotification&) {
  if (!coreFlag(QVConfigKeys::kDoPostAppIsLaunched)) return;
  QVRunLoop::main().postAfter(kLaunchFlushDelay,
                              [] { QVQueueService::sharedInstance()->asyncFlushQueues(); });
}

void QVApplicationLifecycleManager::brvApplicationWillTerminate(const QVNotification&) {
  if (!coreFlag(QVConfigKeys::kDoPostAppGoesToClose)) return;
  auto service = QVQueueService::sharedInstance();
  // Saved, not sent: there is no time left for the network. Each queue is
  // emptied as it is saved, so that a process that lives on does not send
  // the saved messages a second time.
  for (const auto& [name, queue] : service->moduleQueues()) service->saveModuleQueueToFile(queue);
}

}  // namespace qv
