#pragma once

namespace qv {

// What a phone's platform does for free: telling the application that it is
// about to terminate. A Linux process learns it from SIGTERM, SIGINT, SIGHUP
// or its own exit; these hooks turn each into the
// UIApplicationWillTerminateNotification, delivered synchronously, so the
// lifecycle manager's termination path (what the configuration asks for)
// has finished before the process goes.
class QVTerminationHooks {
 public:
  // Installs the hooks once; later calls do nothing. A signal the host
  // ignores stays ignored. Answers false when the hooks could not be set up.
  static bool install();

  QVTerminationHooks() = delete;
};

}  // namespace qv
