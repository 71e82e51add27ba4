#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qv {

// A count that several threads add to on every post. One shared atomic would
// move its cache line between the cores at every add; here each thread adds
// to a stripe of its own (threads are dealt stripes in turn as they first
// count), and a read sums the stripes. A read that races adds sees some of
// them, as a read of one atomic would.
class QVStripedCounter {
 public:
  void add(uint64_t n = 1) {
    stripes_[stripeOfThisThread()].value.fetch_add(n, std::memory_order_relaxed);
  }

  uint64_t load() const {
    uint64_t sum = 0;
    for (const auto& stripe : stripes_) sum += stripe.value.load(std::memory_order_relaxed);
    return sum;
  }

  void reset() {
    for (auto& stripe : stripes_) stripe.value.store(0, std::memory_order_relaxed);
  }

 private:
  static constexpr std::size_t kStripes = 8;

  struct alignas(64) Stripe {
    std::atomic<uint64_t> value{0};
  };

  static std::size_t stripeOfThisThread() {
    static std::atomic<std::size_t> dealt{0};
    thread_local const std::size_t stripe =
        dealt.fetch_add(1, std::memory_order_relaxed) % kStripes;
    return stripe;
  }

  std::array<Stripe, kStripes> stripes_;
};

}  // namespace qv
