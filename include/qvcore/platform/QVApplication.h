#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"

namespace qv {

// Posted on the main run loop, with the application as sender, for each
// lifecycle event the host reports.
inline constexpr char UIApplicationDidEnterBackgroundNotification[] =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr char UIApplicationWillEnterForegroundNotification[] =
    "UIApplicationWillEnterForegroundNotification";
inline constexpr char UIApplicationDidBecomeActiveNotification[] =
    "UIApplicationDidBecomeActiveNotification";
inline constexpr char UIApplicationWillTerminateNotification[] =
    "UIApplicationWillTerminateNotification";

// Names a background task; 0 is no task.
using QVBackgroundTaskIdentifier = uint64_t;
inline constexpr QVBackgroundTaskIdentifier kUIBackgroundTaskInvalid = 0;

// The host application as the platform sees it. Linux cannot tell how the
// user interface is turned or whether the application is in front, so the
// host reports those; until it does, the answers are those of an application
// running in front in an unknown orientation. Setting an empty value (empty
// text) goes back to the Linux answer. The host also reports the lifecycle
// events and may end the background time it grants. Every operation is safe
// from any thread.
class QV_EXPORT QVApplication {
 public:
  // The one application. Never destroyed.
  static QVApplication& sharedApplication();

  // Interface orientation: 0 unknown, 1 portrait, 2 portrait upside down,
  // 3 landscape right, 4 landscape left. A code outside 0..4 is stored as 0,
  // as the device does with its own codes.
  int64_t statusBarOrientation() const;
  void setStatusBarOrientation(int64_t orientation);

  // 0 active, 1 inactive, 2 background; none when the platform cannot say.
  // Other codes are stored as they are: their reading belongs to consumers.
  std::optional<int64_t> applicationState() const;
  void setApplicationState(std::optional<int64_t> state);

  // What a web view would answer for "navigator.userAgent". Linux: a desktop
  // browser's prefix with uname's system and machine and this library's
  // version, "Mozilla/5.0 (X11; Linux x86_64) QVCore/2.0.0.81".
  std::string userAgent() const;
  void setUserAgent(std::string userAgent);

  // ---- lifecycle events -----------------------------------------------------

  enum class LifecycleEvent {
    kDidEnterBackground,
    kWillEnterForeground,
    kDidBecomeActive,
    kWillTerminate
  };

  // One event from the host. The application state changes at once (to
  // background, inactive, active; unchanged at termination), and the event's
  // notification is posted from a task on the main run loop, so observers
  // run there and see the new state. Each call is an event, repeats included.
  void postLifecycleEvent(LifecycleEvent event);

  // ---- background tasks -----------------------------------------------------

  // Asks for time to finish work in the background. The answer names the
  // task until endBackgroundTask; it is kUIBackgroundTaskInvalid when the
  // host refuses, and expirationHandler is then dropped without running.
  // A Linux process is never suspended, so a task does not expire by itself:
  // it lasts until ended, or until the host calls expireBackgroundTasks.
  QVBackgroundTaskIdentifier beginBackgroundTaskWithNameExpirationHandler(
      const std::string& name, std::function<void()> expirationHandler);
  // Ending an unknown, ended or invalid task does nothing.
  void endBackgroundTask(QVBackgroundTaskIdentifier task);
  // The names of the tasks begun and not ended, oldest first.
  std::vector<std::string> backgroundTaskNames() const;

  // Seconds of background time left, as the host reports them. Linux sets
  // no limit, so until the host says otherwise the answer is the largest
  // double. A negative or NaN value is stored as 0; std::nullopt goes back
  // to the Linux answer.
  double backgroundTimeRemaining() const;
  void setBackgroundTimeRemaining(std::optional<double> seconds);

  // The granted time is over: posts a task on the main run loop that runs
  // the expiration handler of every task live when it runs, oldest first,
  // each task at most once in its life. Handlers may end their own task. An
  // exception from a handler leaves the loop's pump (as any task's does);
  // the handlers after it run at the next expiry.
  void expireBackgroundTasks();

  // A host that cannot grant background time refuses every later request.
  bool refusesBackgroundTasks() const;
  void setRefusesBackgroundTasks(bool refuses);

  QVApplication(const QVApplication&) = delete;
  QVApplication& operator=(const QVApplication&) = delete;

 private:
  struct Impl;

  QVApplication();
  ~QVApplication();

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
