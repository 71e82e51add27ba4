#include "qvcore/platform/QVNotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace qv {

namespace {

using Callback = QVNotificationCenter::Callback;

struct Registration {
  Registration(const void* o, std::string n, const void* s, Callback c)
      : observer(o), name(std::move(n)), sender(s), callback(std::move(c)) {}

  bool matches(const QVNotification& notification) const {
    return (name.empty() || name == notification.name) &&
           (sender == nullptr || sender == notification.sender);
  }

  bool selectedBy(const void* o, const std::string& n, const void* s) const {
    return observer == o && (n.empty() || name == n) && (s == nullptr || sender == s);
  }

  bool busyOnOtherThread(std::thread::id self) const {
    return std::any_of(callers.begin(), callers.end(),
                       [self](std::thread::id caller) { return caller != self; });
  }

  const void* const observer;
  const std::string name;
  const void* const sender;
  Callback callback;
  // Guarded by the center's mutex. callers has one entry per call under way,
  // so a removal knows whom it must wait for.
  bool removed = false;
  std::vector<std::thread::id> callers;
};

using RegistrationRef = std::shared_ptr<Registration>;

}  // namespace

struct QVNotificationCenter::Impl {
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

QVNotificationCenter::QVNotificationCenter() : impl_(std::make_unique<Impl>()) {}

QVNotificationCenter::~QVNotificationCenter() = default;

QVNotificationCenter& QVNotificationCenter::defaultCenter() {
  // Never destroyed: observers may remove themselves during static destruction.
  static auto* center = new QVNotificationCenter;
  return *center;
}

void QVNotificationCenter::addObserver(const void* observer, const std::string& name,
                                       const void* sender, Callback callback) {
  auto registration = std::make_shared<Registration>(observer, name, sender, std::move(callback));
  std::lock_guard lock(impl_->mutex_);
  impl_->registrations_.push_back(std::move(registration));
}

void QVNotificationCenter::removeObserver(const void* observer) {
  impl_->removeMatching(observer, std::string(), nullptr);
}

void QVNotificationCenter::removeObserver(const void* observer, const std::string& name,
                                          const void* sender) {
  impl_->removeMatching(observer, name, sender);
}

void QVNotificationCenter::post(const QVNotification& notification) {
  // A snapshot, so callbacks run without the lock and may change the list.
  for (const auto& registration : impl_->matchingRegistrations(notification)) {
    impl_->deliver(*registration, notification);
  }
}

void QVNotificationCenter::post(const std::string& name, const void* sender,
                                std::optional<QVValue> userInfo) {
  QVNotification notification;
  notification.name = name;
  notification.sender = sender;
  notification.userInfo = std::move(userInfo);
  post(notification);
}

size_t QVNotificationCenter::observationCount(const void* observer) const {
  std::lock_guard lock(impl_->mutex_);
  return std::count_if(impl_->registrations_.begin(), impl_->registrations_.end(),
                       [observer](const RegistrationRef& r) { return r->observer == observer; });
}

std::vector<RegistrationRef> QVNotificationCenter::Impl::matchingRegistrations(
    const QVNotification& notification) const {
  std::vector<RegistrationRef> matching;
  std::lock_guard lock(mutex_);
  for (const auto& registration : registrations_) {
    if (registration->matches(notification)) matching.push_back(registration);
  }
  return matching;
}

void QVNotificationCenter::Impl::deliver(Registration& registration,
                                         const QVNotification& notification) {
  // An earlier callback of this post may have removed this registration.
  if (!beginCall(registration)) return;
  struct CallEnd {
    Impl& center;
    Registration& registration;
    ~CallEnd() { center.endCall(registration); }
  } callEnd{*this, registration};
  registration.callback(notification);
}

bool QVNotificationCenter::Impl::beginCall(Registration& registration) {
  std::lock_guard lock(mutex_);
  if (registration.removed) return false;
  registration.callers.push_back(std::this_thread::get_id());
  return true;
}

void QVNotificationCenter::Impl::endCall(Registration& registration) {
  std::lock_guard lock(mutex_);
  auto& callers = registration.callers;
  callers.erase(std::find(callers.begin(), callers.end(), std::this_thread::get_id()));
  if (registration.removed) idle_.notify_all();
}

std::vector<RegistrationRef> QVNotificationCenter::Impl::detachMatching(const void* observer,
                                                                        const std::string& name,
                                                                        const void* sender) {
  std::vector<RegistrationRef> detached;
  std::erase_if(registrations_, [&](const RegistrationRef& registration) {
    if (!registration->selectedBy(observer, name, sender)) return false;
    registration->removed = true;
    detached.push_back(registration);
    return true;
  });
  return detached;
}

void QVNotificationCenter::Impl::removeMatching(const void* observer, const std::string& name,
                                                const void* sender) {
  // Declared before the lock so that callbacks are destroyed after it is let
  // go: their captures may reach back into the center.
  std::vector<Callback> released;
  std::unique_lock lock(mutex_);
  const auto removed = detachMatching(observer, name, sender);
  const auto self = std::this_thread::get_id();
  // Calls on this thread are the caller's own stack (a callback removing
  // itself); waiting for them would never end.
  idle_.wait(lock, [&] {
    return std::none_of(removed.begin(), removed.end(),
                        [self](const RegistrationRef& r) { return r->busyOnOtherThread(self); });
  });
  for (const auto& registration : removed) {
    if (registration->callers.empty()) released.push_back(std::move(registration->callback));
  }
}

}  // namespace qv
