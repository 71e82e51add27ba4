#pragma once

#include <memory>
#include <mutex>

namespace qv {

// The process-wide instance of a platform service: the one a host or a test
// installed, else the real implementation, made on first use (by Make when
// given, which may choose among implementations). Both are kept for good, so
// a service may still be reached while the process exits.
template <typename Service, typename Real, std::shared_ptr<Service> (*Make)() = nullptr>
class QVReplaceableService {
 public:
  std::shared_ptr<Service> get() {
    std::lock_guard lock(mutex_);
    if (chosen_) return chosen_;
    if (!real_) {
      if constexpr (Make != nullptr) {
        real_ = Make();
      } else {
        real_ = std::make_shared<Real>();
      }
    }
    return real_;
  }

  // A null service goes back to the real one.
  void set(std::shared_ptr<Service> service) {
    std::lock_guard lock(mutex_);
    chosen_ = std::move(service);
  }

  // Never destroyed.
  static QVReplaceableService& instance() {
    static auto* shared = new QVReplaceableService;
    return *shared;
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<Service> chosen_;
  std::shared_ptr<Service> real_;
};

}  // namespace qv
