#include "qvcore/platform/QVApplication.h"

#include <limits>

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

// The framework's version; a test holds it equal to QVCore's.
constexpr char kProductToken[] = "QVCore/2.0.0.81";

std::string linuxUserAgent() {
  const QVLinuxSystem::Uname& system = QVLinuxSystem::uname();
  std::string platform = system.sysname.empty() ? "Linux" : system.sysname;
  if (!system.machine.empty()) platform += " " + system.machine;
  return "Mozilla/5.0 (X11; " + platform + ") " + kProductToken;
}

}  // namespace

QVApplication& QVApplication::sharedApplication() {
  // Never destroyed: lifecycle handlers may run while the process exits.
  static auto* application = new QVApplication;
  return *application;
}

QVApplication::QVApplication() : backgroundTasks_(std::make_shared<QVBackgroundTaskList>()) {}

QVApplication::~QVApplication() = default;

int64_t QVApplication::statusBarOrientation() const { return statusBarOrientation_.load(); }

void QVApplication::setStatusBarOrientation(int64_t orientation) {
  const bool known = orientation >= 0 && orientation <= kLastInterfaceOrientation;
  statusBarOrientation_.store(known ? orientation : 0);
}

std::optional<int64_t> QVApplication::applicationState() const {
  std::lock_guard lock(mutex_);
  return applicationState_;
}

void QVApplication::setApplicationState(std::optional<int64_t> state) {
  std::lock_guard lock(mutex_);
  applicationState_ = state;
}

std::string QVApplication::userAgent() const {
  {
    std::lock_guard lock(mutex_);
    if (!userAgent_.empty()) return userAgent_;
  }
  static const std::string linuxAgent = linuxUserAgent();
  return linuxAgent;
}

void QVApplication::setUserAgent(std::string userAgent) {
  std::lock_guard lock(mutex_);
  userAgent_ = std::move(userAgent);
}

// Lifecycle events

const char* QVApplication::notificationNameForLifecycleEvent(LifecycleEvent event) {
  switch (event) {
    case LifecycleEvent::kDidEnterBackground:
      return UIApplicationDidEnterBackgroundNotification;
    case LifecycleEvent::kWillEnterForeground:
      return UIApplicationWillEnterForegroundNotification;
    case LifecycleEvent::kDidBecomeActive:
      return UIApplicationDidBecomeActiveNotification;
    case LifecycleEvent::kWillTerminate:
      return UIApplicationWillTerminateNotification;
  }
  return "";
}

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
  return backgroundTasks_->begin(name, std::move(expirationHandler));
}

void QVApplication::endBackgroundTask(QVBackgroundTaskIdentifier task) {
  if (task != kUIBackgroundTaskInvalid) backgroundTasks_->end(task);
}

std::vector<std::string> QVApplication::backgroundTaskNames() const {
  return backgroundTasks_->names();
}

double QVApplication::backgroundTimeRemaining() const {
  std::lock_guard lock(mutex_);
  return backgroundTimeRemaining_.value_or(std::numeric_limits<double>::max());
}

void QVApplication::setBackgroundTimeRemaining(std::optional<double> seconds) {
  if (seconds && !(*seconds >= 0.0)) seconds = 0.0;  // negative or NaN
  std::lock_guard lock(mutex_);
  backgroundTimeRemaining_ = seconds;
}

void QVApplication::expireBackgroundTasks() {
  QVRunLoop::main().post([tasks = backgroundTasks_] { tasks->expireAll(); });
}

bool QVApplication::refusesBackgroundTasks() const { return refusesBackgroundTasks_.load(); }

void QVApplication::setRefusesBackgroundTasks(bool refuses) {
  refusesBackgroundTasks_.store(refuses);
}

}  // namespace qv
