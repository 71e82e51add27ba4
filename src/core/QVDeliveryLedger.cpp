#include "core/QVDeliveryLedger.h"

#include <utility>

#include "platform/runloop/QVPublished.h"

namespace qv {

namespace {

const char* const kOtherModules = "(other)";

}  // namespace

QVLedgerCounts QVModuleLedger::counts() const {
  QVLedgerCounts counts;
  counts.accepted = accepted_.load();
  counts.refused = refused_.load();
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
  accepted_.reset();
  refused_.reset();
  for (auto* counter : {&sent_, &failed_, &cached_, &recovered_}) {
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
  // Entries are never removed and the ledger is never destroyed, so a
  // thread keeps the ones it counted last.
  thread_local QVRecentLookups<QVModuleLedger*> recent;
  if (QVModuleLedger* const* found = recent.find(this, name)) return **found;
  QVModuleLedger* ledger = nullptr;
  {
    std::lock_guard lock(mutex_);
    ledger = &lockedModule(name);
  }
  recent.add(this, name, ledger);
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
