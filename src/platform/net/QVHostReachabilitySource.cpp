#include "qvcore/platform/QVHostReachabilitySource.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

namespace qv {
namespace {

// One schedule of a target: where it hears about changes. A post under way
// holds it, so it must not refer to the target.
class Listener {
 public:
  Listener(QVRunLoop& loop, QVReachabilityTarget::Changed changed)
      : loop(loop),
        changed_(std::make_shared<const QVReachabilityTarget::Changed>(std::move(changed))) {}

  void call() {
    std::shared_ptr<const QVReachabilityTarget::Changed> changed;
    {
      std::lock_guard lock(mutex_);
      changed = changed_;
    }
    if (changed) (*changed)();
  }

  // After this, call() does nothing.
  void end() {
    // Declared before the lock, so that the function dies after it is let go.
    std::shared_ptr<const QVReachabilityTarget::Changed> changed;
    std::lock_guard lock(mutex_);
    changed_.swap(changed);
  }

  QVRunLoop& loop;

 private:
  std::mutex mutex_;
  std::shared_ptr<const QVReachabilityTarget::Changed> changed_;  // guarded by mutex_
};

// The flags as one word that threads read without a lock (the gate asks on
// every post): the low 32 bits, and bit 32 when there are any.
constexpr uint64_t kHasFlags = uint64_t{1} << 32;

uint64_t packedFlags(std::optional<uint32_t> flags) { return flags ? kHasFlags | *flags : 0; }

std::optional<uint32_t> unpackedFlags(uint64_t word) {
  if ((word & kHasFlags) == 0) return std::nullopt;
  return static_cast<uint32_t>(word);
}

}  // namespace

struct QVHostReachabilitySource::State {
  std::atomic<uint64_t> flags{packedFlags(0)};
  std::mutex mutex;
  // All guarded by mutex.
  std::optional<std::string> radioAccessTechnology;
  bool failsToCreateTargets = false;
  bool failsToSchedule = false;
  std::vector<std::shared_ptr<Listener>> listeners;
};

class QVHostReachabilitySource::Target final : public QVReachabilityTarget {
 public:
  explicit Target(std::shared_ptr<State> state) : state_(std::move(state)) {}
  ~Target() override { unschedule(); }

  std::optional<uint32_t> flags() override {
    return unpackedFlags(state_->flags.load(std::memory_order_acquire));
  }

  bool schedule(QVRunLoop& loop, Changed changed) override {
    if (!changed) return false;
    auto listener = std::make_shared<Listener>(loop, std::move(changed));
    std::shared_ptr<Listener> previous;
    {
      std::lock_guard lock(state_->mutex);
      if (state_->failsToSchedule) return false;
      previous = detach();
      listener_ = listener;
      state_->listeners.push_back(listener);
    }
    if (previous) previous->end();
    return true;
  }

  bool unschedule() override {
    std::shared_ptr<Listener> previous;
    {
      std::lock_guard lock(state_->mutex);
      previous = detach();
    }
    if (previous) previous->end();
    return true;
  }

 private:
  // Takes this target's listener out of the state; the caller holds its lock.
  std::shared_ptr<Listener> detach() {
    if (listener_) std::erase(state_->listeners, listener_);
    return std::exchange(listener_, nullptr);
  }

  const std::shared_ptr<State> state_;
  std::shared_ptr<Listener> listener_;  // guarded by state_->mutex
};

QVHostReachabilitySource::QVHostReachabilitySource() : state_(std::make_shared<State>()) {}

QVHostReachabilitySource::~QVHostReachabilitySource() = default;

std::unique_ptr<QVReachabilityTarget> QVHostReachabilitySource::targetWithAddress(
    const sockaddr* address) {
  if (!address || (address->sa_family != AF_INET && address->sa_family != AF_INET6)) {
    return nullptr;
  }
  return makeTarget();
}

std::unique_ptr<QVReachabilityTarget> QVHostReachabilitySource::targetWithHostName(
    const std::string&) {
  return makeTarget();
}

std::unique_ptr<QVReachabilityTarget> QVHostReachabilitySource::makeTarget() {
  std::lock_guard lock(state_->mutex);
  if (state_->failsToCreateTargets) return nullptr;
  return std::make_unique<Target>(state_);
}

std::optional<std::string> QVHostReachabilitySource::currentRadioAccessTechnology() {
  std::lock_guard lock(state_->mutex);
  return state_->radioAccessTechnology;
}

void QVHostReachabilitySource::setFlags(std::optional<uint32_t> flags) {
  {
    std::lock_guard lock(state_->mutex);
    state_->flags.store(packedFlags(flags), std::memory_order_release);
  }
  announce();
}

void QVHostReachabilitySource::setRadioAccessTechnology(std::optional<std::string> technology) {
  {
    std::lock_guard lock(state_->mutex);
    state_->radioAccessTechnology = std::move(technology);
  }
  announce();
}

void QVHostReachabilitySource::setFailsToCreateTargets(bool fails) {
  std::lock_guard lock(state_->mutex);
  state_->failsToCreateTargets = fails;
}

void QVHostReachabilitySource::setFailsToSchedule(bool fails) {
  std::lock_guard lock(state_->mutex);
  state_->failsToSchedule = fails;
}

size_t QVHostReachabilitySource::scheduledTargetCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->listeners.size();
}

void QVHostReachabilitySource::announce() {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    std::lock_guard lock(state_->mutex);
    listeners = state_->listeners;
  }
  for (const auto& listener : listeners) {
    listener->loop.post([listener] { listener->call(); });
  }
}

}  // namespace qv
