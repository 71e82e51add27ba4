#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVNotification.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Name-keyed publish and subscribe. post() delivers synchronously on the
// posting thread. Once removeObserver() returns, the removed callbacks are
// not running on any other thread and will not be called again, so an
// observer may be destroyed right after removing itself.
class QV_EXPORT QVNotificationCenter {
 public:
  using Callback = std::function<void(const QVNotification&)>;

  static QVNotificationCenter& defaultCenter();

  // A center of its own, apart from the default one.
  QVNotificationCenter();
  ~QVNotificationCenter();

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
  struct Impl;

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
