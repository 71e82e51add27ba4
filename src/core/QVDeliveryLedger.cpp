#include "core/QVDeliveryLedger.h"

#include <utility>

namespace qv {

namespace {

const char* const kOtherModules = "(other)";

// The entries a thread counted last, by name.
struct RecentLedgers {
  struct Entry {
    std::string name;
    QVModuleLedger* ledger = nullptr;
  };
  std::array<Entry, 4> entries;
  std::size_t next = 0;

  QVModuleLedger* find(const std::string& name) const {
    for (const auto& entry : entries) {
      if (entry.ledger && entry.name == name) return entry.ledger;
    }
    return nullptr;
  }
  void add(const std::string& name, QVModuleLedger* ledger) {
    entries[next] = {name, ledger};
    next = (next + 1) % entries.size();
  }
};

}  // namespace

QVLedgerCounts QVModuleLedger::counts() const {
  QVLedgerCounts counts;
  counts.accepted = accepted_.load(std::memory_order_relaxed);
  counts.refused = refused_.load(std::memory_order_relaxed);
  counts.sent = sent_.load(std::memory_order_relaxed);
  counts.failed = failed_.load(std::memory_order_relaxed);
  counts.cached = cached_.load(std::memory_order_relaxed);
  counts.recovered = recovered_.load(std::memory_order_relaxed);
  for (std::size_t i = 0; i < dropped_.size(); ++i) {
    counts.dropped[i] = dropped_[i].load(std::memory_order_relaxed);
  }
  return counts;
}

void QVModuleLedger::reset() {
  for (auto* counter : {&accepted_, &refused_, &sent_, &failed_, &cached_, &recovered_}) {
    counter->store(0, std::memory_order_relaxed);
  }
  for (auto& counter : dropped_) counter.store(0, std::memory_order_relaxed);
}

QVDeliveryLedger& QVDeliveryLedger::shared() {
  // Never destroyed: HTTP outcomes and the crash hook may count while the
  // process tears down its statics.
  static auto* ledger = new QVDeliveryLedger;
  return *ledger;
}

QVModuleLedger& QVDeliveryLedger::module(const std::string& name) {
  thread_local RecentLedgers recent;
  if (QVModuleLedger* ledger = recent.find(name)) return *ledger;
  QVModuleLedger* ledger = nullptr;
  {
    std::lock_guard lock(mutex_);
    ledger = &lockedModule(name);
  }
  recent.add(name, ledger);
  return *ledger;
}

QVModuleLedger& QVDeliveryLedger::lockedModule(const std::string& name) {
  auto it = modules_.find(name);
  if (it != modules_.end()) return *it->second;
  const std::string& key = modules_.size() < kMaxModules ? name : kOtherModules;
  auto& slot = modules_[key];
  if (!slot) slot = std::make_unique<QVModuleLedger>();
  return *slot;
}

QVLedgerSnapshot QVDeliveryLedger::snapshot() const {
  QVLedgerSnapshot snapshot;
  std::lock_guard lock(mutex_);
  for (const auto& [name, ledger] : modules_) snapshot.modules[name] = ledger->counts();
  return snapshot;
}

void QVDeliveryLedger::reset() {
  std::lock_guard lock(mutex_);
  for (const auto& [name, ledger] : modules_) ledger->reset();
}

}  // namespace qv
