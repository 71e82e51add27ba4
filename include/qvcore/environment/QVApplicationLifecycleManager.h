#pragma once

#include <memory>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVNotification.h"

namespace qv {

// Listens to the host application's lifecycle notifications and, as the
// core's configuration allows, has the queue service send or save what is
// queued: at the end of the background time granted after entering the
// background, on returning to the foreground, a second after becoming active
// and before termination.
//
// Which events are observed is decided at start from the core's items
// "DoPostAppGoesToBackground" (through its typed accessor, default on),
// "DoPostAppComesFromBackground", "DoPostAppIsLaunched" and
// "DoPostAppGoesToClose" (raw, a missing item is off). Each handler reads its
// item again, raw, when it runs, so a later change can switch a handler off
// but never on. The handlers run on the main run loop, where the application
// posts its notifications.
class QV_EXPORT QVApplicationLifecycleManager
    : public std::enable_shared_from_this<QVApplicationLifecycleManager> {
 public:
  // A manager that observes nothing yet.
  static std::shared_ptr<QVApplicationLifecycleManager> init();
  ~QVApplicationLifecycleManager();

  // Always true. Observes the configured notifications; starting twice
  // observes them twice, as nothing here guards against it.
  bool startMonitoringApplicationChanges();
  // Always true. Stops observing. A background task already begun lives on
  // until it expires.
  bool stopMonitoringApplicationChanges();

  // True from the moment a background task is requested until its expiration
  // handler has run; every start and stop of monitoring clears it. A refused
  // task never expires, so the flag then stays set until that clearing.
  bool isBackgroundPostingRunning() const;
  void setIsBackgroundPostingRunning(bool running);

  void brvApplicationDidEnterBackground(const QVNotification& notification);
  void brvApplicationWillEnterForeground(const QVNotification& notification);
  void brvApplicationDidBecomeActive(const QVNotification& notification);
  void brvApplicationWillTerminate(const QVNotification& notification);

  QVApplicationLifecycleManager(const QVApplicationLifecycleManager&) = delete;
  QVApplicationLifecycleManager& operator=(const QVApplicationLifecycleManager&) = delete;

 private:
  struct Impl;

  QVApplicationLifecycleManager();

  using Handler = void (QVApplicationLifecycleManager::*)(const QVNotification&);
  void observe(const char* name, Handler handler);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
