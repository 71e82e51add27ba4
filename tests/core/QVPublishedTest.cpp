// The published-snapshot mechanism that the registry, the network monitor,
// the posting limits and the ledgers read on every post: what a thread reads
// after a publication, owners kept apart, and publishers racing readers. The
// recent lookups built on it are held through their readers, the queue
// service and the ledgers (QVQueueServiceTest, QVDeliveryLedgerTest).
#include "platform/runloop/QVPublished.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

namespace qv {
namespace {

using Ints = std::vector<int>;

// Two halves written together: a reader that sees them differ read a value
// while it was being made.
struct Pair {
  int first;
  int second;
};
std::shared_ptr<const Pair> pairOf(int n) { return std::make_shared<const Pair>(Pair{n, n}); }
// What this thread reads: the first half, or -1 for none.
int read(QVPublished<const Pair>& published) {
  const Pair* pair = published.ofThread();
  return pair ? pair->first : -1;
}

// An update that keeps the value keeps it for readers too; one that drops it
// is seen as none; an owner made where another stood is read afresh.
TEST(QVPublishedTest, ReadersSeeEachPublicationAndOwnersDoNotMix) {
  std::optional<QVPublished<const Pair>> one(std::in_place);
  QVPublished<const Pair> two;
  EXPECT_EQ(read(*one), -1);
  one->publish(pairOf(1));
  two.publish(pairOf(2));
  EXPECT_EQ((Ints{read(*one), read(two), read(*one)}), (Ints{1, 2, 1}));
  one->publish(pairOf(3));
  one->update([](const auto& current) { return current; });
  EXPECT_EQ(read(*one), 3);
  one->update([](const auto&) { return std::shared_ptr<const Pair>(); });
  EXPECT_EQ(read(*one), -1);
  EXPECT_EQ(one->current(), nullptr);

  one.reset();
  one.emplace();
  one->publish(pairOf(4));
  EXPECT_EQ(read(*one), 4);
}

TEST(QVPublishedTest, ACopyKeyedByNoGenerationIsLoadedOnEveryRead) {
  struct Tag;
  int loads = 0;
  const auto read = [&loads](uint64_t generation, uint64_t kept) {
    return QVThreadCopy<int, Tag>::of(&loads, generation, [&loads, kept](int& copy) {
      copy = ++loads;
      return kept;
    });
  };
  EXPECT_EQ((Ints{read(5, 5), read(5, 5), read(6, 0), read(6, 0)}), (Ints{1, 1, 2, 3}));
}

// Run under ThreadSanitizer too: readers never see a half-made value and
// each ends on the last one published.
TEST(QVPublishedTest, ConcurrentPublishersAndReaders) {
  constexpr int kLast = 2000;
  QVPublished<const Pair> published;
  published.publish(pairOf(0));
  std::vector<std::thread> readers;
  Ints torn(4, 0);
  Ints sawLast(4, 0);
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      // Bounded, so that a reader that never sees the last value fails
      // instead of hanging.
      long reads = 0;
      const Pair* pair = published.ofThread();
      for (; pair->first != kLast && ++reads < 20'000'000; pair = published.ofThread()) {
        if (pair->first != pair->second) ++torn[r];
        std::this_thread::yield();
      }
      sawLast[r] = pair->first == kLast;
    });
  }
  std::thread other([&] {
    for (int n = 1; n < kLast; n += 2) published.publish(pairOf(-n));
  });
  for (int n = 1; n <= kLast; ++n) published.update([n](const auto&) { return pairOf(n); });
  other.join();
  published.publish(pairOf(kLast));
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(torn, Ints(4, 0));
  EXPECT_EQ(sawLast, Ints(4, 1)) << "every reader saw the last value";
}

}  // namespace
}  // namespace qv
