#include "qvcore/platform/QVApplication.h"

#include <atomic>
#include <limits>
#include <mutex>

#include "core/QVCoreFrameworkVersion.h"
#include "platform/host/QVLinuxSystem.h"
#include "platform/runloop/QVBackgroundTaskList.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

namespace {

constexpr int64_t kLastInterfaceOrientation = 4;  // landscape left

constexpr int64_t kStateActive = 0;
constexpr int64_t kStateInactive = 1;
constexpr int64_t kStateBackground = 2;

std::string linuxUserAgent() {
  const QVLinuxSystem::Uname& system = QVLinuxSystem::uname();
  std::string platform = system.sysname.empty() ? "Linux" : system.sysname;
  if (!system.machine.empty()) platform += " " + system.machine;
  return "Mozilla/5.0 (X11; " + platform + ") QVCore/" + kQVCoreFrameworkVersion;
}

const char* notificationNameForLifecycleEvent(QVApplication::LifecycleEvent event) {
  switch (event) {
    case QVApplication::LifecycleEvent::kDidEnterBackground:
      return UIApplicationDidEnterBackgroundNotification;
    case QVApplication::LifecycleEvent::kWillEnterForeground:
      return UIApplicationWillEnterForegroundNotification;
    case QVApplication::LifecycleEvent::kDidBecomeActive:
      return UIApplicationDidBecomeActiveNotification;
    case QVApplication::LifecycleEvent::kWillTerminate:
      return UIApplicationWillTerminateNotification;
  }
  return "";
}

}  // namespace

QVApplication& QVApplication::sharedApplication() {
  // Never destroyed: lifecycle handlers may run while the process exits.
  static auto* application = new QVApplication;
  return *application;
}

struct QVApplication::Impl {
  std::atomic<int64_t> statusBarOrientation_{0};
  std::atomic<bool> refusesBackgroundTasks_{false};
  // Shared with the expiry tasks posted on the main loop.
  const std::shared_ptr<QVBackgroundTaskList> backgroundTasks_ =
      std::make_shared<QVBackgroundTaskList>();

  // Guards the fields below.
  mutable std::mutex mutex_;
  std::optional<int64_t> applicationState_ = 0;
  std::string userAgent_;
  std::optional<double> backgroundTimeRemaining_;
};

QVApplication::QVApplication() : impl_(std::make_unique<Impl>()) {}

QVApplication::~QVApplication() = default;

int64_t QVApplication::statusBarOrientation() const { return impl_->statusBarOrientation_.load(); }

void QVApplication::setStatusBarOrientation(int64_t orientation) {
  const bool known = orientation >= 0 && orientation <= kLastInterfaceOrientation;
  impl_->statusBarOrientation_.store(known ? orientation : 0);
}

std::optional<int64_t> QVApplication::applicationState() const {
  std::lock_guard lock(impl_->mutex_);
  return impl_->applicationState_;
}

void QVApplication::setApplicationState(std::optional<int64_t> state) {
  std::lock_guard lock(impl_->mutex_);
  impl_->applicationState_ = state;
}

std::string QVApplication::userAgent() const {
  {
    std::lock_guard lock(impl_->mutex_);
    if (!impl_->userAgent_.empty()) return impl_->userAgent_;
  }
  static const std::string linuxAgent = linuxUserAgent();
  return linuxAgent;
}

void QVApplication::setUserAgent(std::string userAgent) {
  std::lock_guard lock(impl_->mutex_);
  impl_->userAgent_ = std::move(userAgent);
}

// Lifecycle events

void QVApplication::postLifecycleEvent(LifecycleEvent event) {
  // The state moves before the notification is delivered, so an observer
  // reads the state the event brought. A coming application passes through
  // inactive before it is active; termination leaves the state alone.
  switch (event) {
    case LifecycleEvent::kDidEnterBackground:
      setApplicationState(kStateBackground);
      break;
    case LifecycleEvent::kWillEnterForeground:
      setApplicationState(kStateInactive);
      break;
    case LifecycleEvent::kDidBecomeActive:
      setApplicationState(kStateActive);
      break;
    case LifecycleEvent::kWillTerminate:
      break;
  }
  const std::string name = notificationNameForLifecycleEvent(event);
  QVRunLoop::main().post([this, name] { QVNotificationCenter::defaultCenter().post(name, this); });
}

// Background tasks

QVBackgroundTaskIdentifier QVApplication::beginBackgroundTaskWithNameExpirationHandler(
    const std::string& name, std::function<void()> expirationHandler) {
  if (refusesBackgroundTasks()) return kUIBackgroundTaskInvalid;
  return impl_->backgroundTasks_->begin(name, std::move(expirationHandler));
}

void QVApplication::endBackgroundTask(QVBackgroundTaskIdentifier task) {
  if (task != kUIBackgroundTaskInvalid) impl_->backgroundTasks_->end(task);
}

std::vector<std::string> QVApplication::backgroundTaskNames() const {
  return impl_->backgroundTasks_->names();
}

double QVApplication::backgroundTimeRemaining() const {
  std::lock_guard lock(impl_->mutex_);
  return impl_->backgroundTimeRemaining_.value_or(std::numeric_limits<double>::max());
}

void QVApplication::setBackgroundTimeRemaining(std::optional<double> seconds) {
  if (seconds && !(*seconds >= 0.0)) seconds = 0.0;  // negative or NaN
  std::lock_guard lock(impl_->mutex_);
  impl_->backgroundTimeRemaining_ = seconds;
}

void QVApplication::expireBackgroundTasks() {
  QVRunLoop::main().post([tasks = impl_->backgroundTasks_] { tasks->expireAll(); });
}

bool QVApplication::refusesBackgroundTasks() const { return impl_->refusesBackgroundTasks_.load(); }

void QVApplication::setRefusesBackgroundTasks(bool refuses) {
  impl_->refusesBackgroundTasks_.store(refuses);
}

}  // namespace qv
