#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/runloop/QVStripedCounter.h"
#include "qvcore/core/QVLedgerSnapshot.h"

namespace qv {

// The counters of one module. Posting threads of the module add to accepted
// or refused on every post: those are striped, so that two threads posting
// to one module do not pass a cache line between them. Every counter is
// relaxed, read only by snapshots.
class QVModuleLedger {
 public:
  void addAccepted() { accepted_.add(); }
  void addRefused() { refused_.add(); }
  void addSent(uint64_t n) { sent_.fetch_add(n, std::memory_order_relaxed); }
  void addFailed(uint64_t n) { failed_.fetch_add(n, std::memory_order_relaxed); }
  void addCached(uint64_t n) { cached_.fetch_add(n, std::memory_order_relaxed); }
  void addRecovered(uint64_t n) { recovered_.fetch_add(n, std::memory_order_relaxed); }
  void addDropped(QVDropReason reason, uint64_t n) {
    dropped_[static_cast<std::size_t>(reason)].fetch_add(n, std::memory_order_relaxed);
  }

  // The counters; queued and in flight are left at 0 for the queue service.
  QVLedgerCounts counts() const;
  void reset();

 private:
  QVStripedCounter accepted_;
  QVStripedCounter refused_;
  alignas(64) std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> failed_{0};
  std::atomic<uint64_t> cached_{0};
  std::atomic<uint64_t> recovered_{0};
  std::array<std::atomic<uint64_t>, static_cast<std::size_t>(QVDropReason::kCount)> dropped_{};
};

// Every module's counters, by module class name, for the life of the
// process (a disable keeps them, since the queued messages stay too).
// Entries are made on first use and never removed, so a reference to one
// stays valid and posting threads keep it without a lock.
class QVDeliveryLedger {
 public:
  static QVDeliveryLedger& shared();

  // The module's counters. A thread finds the modules it counted last
  // without the lock. Past kMaxModules names, new names share the entry
  // "(other)": posts under arbitrary names cannot grow the ledger without
  // bound.
  QVModuleLedger& module(const std::string& name);
  // The counters of every module; queued and in flight are 0.
  QVLedgerSnapshot snapshot() const;
  // Zeroes every counter; the entries stay.
  void reset();

  static constexpr std::size_t kMaxModules = 1024;

 private:
  QVModuleLedger& lockedModule(const std::string& name);

  mutable std::mutex mutex_;
  std::map<std::string, std::unique_ptr<QVModuleLedger>> modules_;
};

}  // namespace qv
