#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVClock.h"

namespace qv {

// Virtual time for tests: it stands still until advance() moves it, so a test
// can make a 30-second timer due without waiting 30 seconds.
class QV_EXPORT QVFakeClock final : public QVClock {
 public:
  explicit QVFakeClock(TimePoint start = TimePoint{});

  TimePoint now() const override;
  bool isSteady() const override;
  ListenerId addListener(Listener listener) override;
  void removeListener(ListenerId id) override;

  // Moves time forward by step and tells the listeners. A negative step is
  // ignored: steady time never goes back, and the run loops rely on that.
  void advance(Duration step);

 private:
  mutable std::mutex mutex_;
  TimePoint now_;
  ListenerId nextId_ = 1;
  std::map<ListenerId, std::shared_ptr<const Listener>> listeners_;
};

}  // namespace qv
