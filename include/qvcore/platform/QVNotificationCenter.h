#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVNotification.h"

namespace qv {

// Name-keyed publish and subscribe. post() delivers synchronously on the
// posting thread. Once removeObserver() returns, the removed callbacks are
// not running on any other thread and will not be called again, so an
// observer may be destroyed right after removing itself.
class QV_EXPORT QVNotificationCenter {
 public:
  using Callback = std::function<void(const QVNotification&)>;

  static QVNotificationCenter& defaultCenter();

  // observer identifies the registration for removal; an empty name matches
  // every name, a null sender every sender. Registering twice delivers twice.
  void addObserver(const void* observer, const std::string& name, const void* sender,
                   Callback callback);

  // Removes every registration of observer.
  void removeObserver(const void* observer);
  // Removes the registrations of observer for name (empty: any name) and
  // sender (null: any sender).
  void removeObserver(const void* observer, const std::string& name, const void* sender);

  void post(const QVNotification& notification);
  void post(const std::string& name, const void* sender = nullptr,
            std::optional<QVValue> userInfo = std::nullopt);

  // Number of registrations of observer (for diagnostics and tests).
  size_t observationCount(const void* observer) const;

 private:
  struct Registration;
  using RegistrationRef = std::shared_ptr<Registration>;

  std::vector<RegistrationRef> matchingRegistrations(const QVNotification& notification) const;
  void deliver(Registration& registration, const QVNotification& notification);
  bool beginCall(Registration& registration);
  void endCall(Registration& registration);
  // Takes the selected registrations out of the list; the caller holds mutex_.
  std::vector<RegistrationRef> detachMatching(const void* observer, const std::string& name,
                                              const void* sender);
  void removeMatching(const void* observer, const std::string& name, const void* sender);

  mutable std::mutex mutex_;
  // Signalled when a call of a removed registration ends.
  std::condition_variable idle_;
  std::vector<RegistrationRef> registrations_;
};

}  // namespace qv
