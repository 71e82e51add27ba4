// The published-snapshot mechanism that the registry, the network monitor,
// the posting limits and the ledgers read on every post: what a thread reads
// after a publication, owners kept apart, and publishers racing readers.
#include "platform/runloop/QVPublished.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace qv {
namespace {

// Two halves written together: a reader that sees them differ read a value
// while it was being made.
struct Pair {
  int first;
  int second;
};

std::shared_ptr<const Pair> pairOf(int n) { return std::make_shared<const Pair>(Pair{n, n}); }

TEST(QVPublishedTest, ReadersSeeEachPublicationAndOwnersDoNotMix) {
  QVPublished<const Pair> one;
  QVPublished<const Pair> two;
  EXPECT_EQ(one.ofThread(), nullptr);
  one.publish(pairOf(1));
  two.publish(pairOf(2));
  EXPECT_EQ(one.ofThread()->first, 1);
  EXPECT_EQ(two.ofThread()->first, 2);
  EXPECT_EQ(one.ofThread()->first, 1);

  one.publish(pairOf(3));
  EXPECT_EQ(one.ofThread()->first, 3);
  int seenElsewhere = 0;
  std::thread([&] { seenElsewhere = one.ofThread()->first; }).join();
  EXPECT_EQ(seenElsewhere, 3);

  // An update that keeps the value keeps it for readers too; one that
  // drops it is seen as none.
  one.update([](const auto& current) { return current; });
  EXPECT_EQ(one.ofThread()->first, 3);
  one.update([](const auto&) { return std::shared_ptr<const Pair>(); });
  EXPECT_EQ(one.ofThread(), nullptr);
  EXPECT_EQ(one.current(), nullptr);
}

TEST(QVPublishedTest, AnOwnerMadeWhereAnotherStoodIsReadAfresh) {
  std::optional<QVPublished<const Pair>> owner;
  owner.emplace();
  owner->publish(pairOf(1));
  EXPECT_EQ(owner->ofThread()->first, 1);
  owner.reset();
  owner.emplace();
  owner->publish(pairOf(2));
  EXPECT_EQ(owner->ofThread()->first, 2);
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
  EXPECT_EQ(read(5, 5), 1);
  EXPECT_EQ(read(5, 5), 1);
  EXPECT_EQ(read(6, 0), 2);
  EXPECT_EQ(read(6, 0), 3);
}

TEST(QVPublishedTest, RecentLookupsKeepTheLastAnswersOfEachOwner) {
  QVRecentLookups<int, 2> recent;
  const int ownerA = 0;
  const int ownerB = 0;
  recent.add(&ownerA, "m", 1);
  recent.add(&ownerB, "m", 2);
  ASSERT_NE(recent.find(&ownerA, "m"), nullptr);
  EXPECT_EQ(*recent.find(&ownerA, "m"), 1);
  EXPECT_EQ(*recent.find(&ownerB, "m"), 2);
  EXPECT_EQ(recent.find(&ownerA, "n"), nullptr);
  recent.add(&ownerA, "n", 3);  // takes the place of the oldest
  EXPECT_EQ(recent.find(&ownerA, "m"), nullptr);
  EXPECT_EQ(*recent.find(&ownerA, "n"), 3);
}

// Run under ThreadSanitizer too: readers never see a half-made value and
// each ends on the last one published.
TEST(QVPublishedTest, ConcurrentPublishersAndReaders) {
  constexpr int kLast = 2000;
  QVPublished<const Pair> published;
  published.publish(pairOf(0));
  std::vector<std::thread> readers;
  std::vector<int> torn(4, 0);
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      for (;;) {
        const Pair* pair = published.ofThread();
        if (pair->first != pair->second) ++torn[r];
        if (pair->first == kLast) return;
        std::this_thread::yield();
      }
    });
  }
  std::thread other([&] {
    for (int n = 1; n < kLast; n += 2) published.publish(pairOf(-n));
  });
  for (int n = 1; n <= kLast; ++n) {
    published.update([n](const auto&) { return pairOf(n); });
  }
  other.join();
  published.publish(pairOf(kLast));
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(torn, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace qv
