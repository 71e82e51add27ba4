#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace qv {

// Values that every posting thread reads on every post (the module registry,
// the network monitor, the posting limits) but that change rarely are read
// from a copy kept by each thread, so that posting threads share no lock and
// no reference count. The rules, for every user of the types below:
//
// - The owner of a value moves a generation each time the value changes,
//   after the change, with release, under the owner's lock.
// - A reader loads the generation with acquire and compares it, together
//   with the owner's address, with the key of its thread's copy. Equal keys
//   mean the copy is the current value: it is read without a lock.
// - On a difference the reader takes the owner's lock once and reads the
//   value and the generation together, so that the copy is never keyed by a
//   generation newer than itself. The copy it replaces is let go outside the
//   lock: it may hold the last reference to an object whose destructor takes
//   locks of its own.
// - A copy is valid until its thread reads the same kind of value again.

// The calling thread's copy of one kind of value (Value, told apart by Tag
// where two users keep the same type), keyed by (owner, generation). One
// copy a thread: a thread that reads two owners in turn loads each time.
template <class Value, class Tag = Value>
class QVThreadCopy {
 public:
  // load(Value&) fills the copy and gives the generation that the copy now
  // stands for; 0 keeps nothing, so that the next read loads again.
  template <class Load>
  static const Value& of(const void* owner, uint64_t generation, Load&& load) {
    thread_local QVThreadCopy copy;
    if (copy.owner_ != owner || copy.generation_ != generation) {
      Value fresh{};
      const uint64_t loaded = load(fresh);
      copy.owner_ = owner;
      copy.generation_ = loaded;
      std::swap(copy.value_, fresh);
    }
    return copy.value_;
  }

 private:
  const void* owner_ = nullptr;
  uint64_t generation_ = 0;
  Value value_{};
};

// A value behind a shared pointer, replaced whole (never changed in place)
// and read by many threads. Generations come from one counter for every
// owner of a T, so that an owner made where a destroyed one stood never
// matches a thread's copy of the old one.
template <class T>
class QVPublished {
 public:
  using Pointer = std::shared_ptr<T>;

  QVPublished() : generation_(nextGeneration()) {}
  QVPublished(const QVPublished&) = delete;
  QVPublished& operator=(const QVPublished&) = delete;

  // Replaces the value.
  void publish(Pointer value) {
    update([&value](const Pointer&) { return std::move(value); });
  }

  // change(current) gives the new value, under the lock; giving current
  // itself changes nothing. Answers the value in place afterwards.
  template <class Change>
  Pointer update(Change&& change) {
    Pointer replaced;
    std::lock_guard lock(mutex_);
    Pointer next = change(static_cast<const Pointer&>(value_));
    if (next != value_) {
      replaced = std::exchange(value_, std::move(next));
      generation_.store(nextGeneration(), std::memory_order_release);
    }
    return value_;
  }

  // The value now, with a reference of its own.
  Pointer current() const {
    std::lock_guard lock(mutex_);
    return value_;
  }

  // The value as the calling thread last read it: valid until that thread
  // reads a value of the same T again.
  T* ofThread() const {
    const uint64_t now = generation_.load(std::memory_order_acquire);
    return QVThreadCopy<Pointer, QVPublished>::of(
               this, now,
               [this](Pointer& copy) {
                 std::lock_guard lock(mutex_);
                 copy = value_;
                 return generation_.load(std::memory_order_relaxed);
               })
        .get();
  }

 private:
  static uint64_t nextGeneration() {
    static std::atomic<uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
  }

  mutable std::mutex mutex_;
  Pointer value_;  // guarded by mutex_
  // Read on every post, so on a line of its own, away from the lock.
  alignas(64) std::atomic<uint64_t> generation_;
};

// A thread's last few entries of one kind, found by a test of the caller's
// choosing; a new entry takes the place of the oldest. Kept thread_local by
// its users, so it needs no lock.
template <class Entry, std::size_t N = 4>
class QVRecentEntries {
 public:
  template <class Match>
  const Entry* find(Match&& match) const {
    for (const auto& entry : entries_) {
      if (match(entry)) return &entry;
    }
    return nullptr;
  }

  // The entry that matches, else the oldest, to be filled by the caller.
  template <class Match>
  Entry& slotFor(Match&& match) {
    for (auto& entry : entries_) {
      if (match(entry)) return entry;
    }
    Entry& oldest = entries_[next_];
    next_ = (next_ + 1) % N;
    return oldest;
  }

 private:
  std::array<Entry, N> entries_{};
  std::size_t next_ = 0;
};

// The answers a thread found last, by owner (never null) and name, for
// lookups whose answers never change once made: the owner neither replaces
// nor removes an entry and lives as long as the process, so an answer kept
// here stays valid and is used without the owner's lock.
template <class Value, std::size_t N = 4>
class QVRecentLookups {
 public:
  const Value* find(const void* owner, const std::string& name) const {
    const Entry* found = entries_.find(matching(owner, name));
    return found ? &found->value : nullptr;
  }

  void add(const void* owner, const std::string& name, Value value) {
    entries_.slotFor(matching(owner, name)) = {owner, name, std::move(value)};
  }

 private:
  struct Entry {
    const void* owner = nullptr;
    std::string name;
    Value value{};
  };
  static auto matching(const void* owner, const std::string& name) {
    return
        [owner, &name](const Entry& entry) { return entry.owner == owner && entry.name == name; };
  }
  QVRecentEntries<Entry, N> entries_;
};

}  // namespace qv
