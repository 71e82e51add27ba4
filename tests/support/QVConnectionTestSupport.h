#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCookieProvider.h"
#include "qvcore/core/QVHttpHeadersProvider.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/queue/QVConnectionDelegate.h"
#include "support/QVTestModule.h"

namespace qv::test {

// A module with headers and cookies of its own for each post.
class QVPostingModule : public QVTestModule, public QVHttpHeadersProvider, public QVCookieProvider {
 public:
  using QVTestModule::QVTestModule;

  QVValue httpHeadersForSessionIdAndJson(const std::string& sessionId,
                                         const std::string&) override {
    std::lock_guard lock(mutex_);
    askedSessionIds.push_back(sessionId);
    return headers;
  }
  void addCookiesToRequest(QVMutableURLRequest& request) override {
    if (!cookie.empty()) request.setValueForHTTPHeaderField(cookie, "Cookie");
  }

  // Set before posting.
  QVValue headers = QVValue::object();
  std::string cookie;
  // What the module was asked with.
  std::vector<std::string> askedSessionIds;

 private:
  std::mutex mutex_;
};

// Records the outcomes of a connection, which may arrive on another thread.
class QVRecordingDelegate : public QVConnectionDelegate {
 public:
  struct Outcome {
    bool succeeded;
    std::shared_ptr<QVQueue> queue;
  };
  using Rewrite = std::function<std::shared_ptr<QVMutableURLRequest>(
      const std::shared_ptr<QVMutableURLRequest>&)>;

  void flushCompletedForQueue(const std::shared_ptr<QVQueue>& queue) override {
    record({true, queue});
  }
  void flushFailedForQueue(const std::shared_ptr<QVQueue>& queue) override {
    record({false, queue});
  }
  std::shared_ptr<QVMutableURLRequest> beforeFlushingRequestForQueue(
      const std::shared_ptr<QVMutableURLRequest>& request,
      const std::shared_ptr<QVQueue>&) override {
    return rewrite ? rewrite(request) : nullptr;
  }

  std::vector<Outcome> outcomes() const {
    std::lock_guard lock(mutex_);
    return outcomes_;
  }
  bool waitForOutcomes(size_t count, std::chrono::seconds bound = std::chrono::seconds(30)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, bound, [&] { return outcomes_.size() >= count; });
  }
  // Set before posting.
  Rewrite rewrite;
  // Runs inside each outcome callback, on the thread that reports it.
  std::function<void(const Outcome&)> onOutcome;

 private:
  void record(Outcome outcome) {
    if (onOutcome) onOutcome(outcome);
    {
      std::lock_guard lock(mutex_);
      outcomes_.push_back(std::move(outcome));
    }
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Outcome> outcomes_;
};

// Gives the core and the module exactly these configurations.
inline void configure(const QVLifecycleObject& module, const QVValue& moduleItems,
                      const QVValue& coreItems = QVValue::object()) {
  QVConfigService::sharedInstance()->setConfigurations(
      {{"QVCore", std::make_shared<QVValue>(coreItems)},
       {module.className(), std::make_shared<QVValue>(moduleItems)}});
}

}  // namespace qv::test
