#include "qvcore/platform/QVNotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qv {
namespace {

using Seen = std::vector<std::string>;

// Records the deliveries of one test, in order.
struct Recorder {
  QVNotificationCenter::Callback callback(std::string tag) {
    return [this, tag](const QVNotification& n) { seen.push_back(tag + ":" + n.name); };
  }
  Seen take() { return std::exchange(seen, {}); }
  Seen seen;
};

TEST(QVNotificationCenterTest, FiltersAndRemovesByNameAndSender) {
  QVNotificationCenter center;
  Recorder rec;
  int a = 0, b = 0, any = 0, named = 0, multi = 0;
  center.addObserver(&any, "", nullptr, rec.callback("any"));
  center.addObserver(&named, "N", nullptr, rec.callback("named"));
  center.addObserver(&multi, "N", &a, rec.callback("NA"));
  center.addObserver(&multi, "", &b, rec.callback("fromB"));
  center.addObserver(&multi, "M", nullptr, rec.callback("M1"));
  center.addObserver(&multi, "M", nullptr, rec.callback("M2"));

  center.post("N", &a);
  EXPECT_EQ(rec.take(), (Seen{"any:N", "named:N", "NA:N"}));
  center.post("M", &b);
  EXPECT_EQ(rec.take(), (Seen{"any:M", "fromB:M", "M1:M", "M2:M"}));

  center.removeObserver(&multi, "M", nullptr);
  center.removeObserver(&multi, "N", &b);  // selects nothing
  EXPECT_EQ(center.observationCount(&multi), 2u);
  center.post("M", &b);
  EXPECT_EQ(rec.take(), (Seen{"any:M", "fromB:M"}));
  center.removeObserver(&multi);
  center.post("N", &a);
  EXPECT_EQ(rec.take(), (Seen{"any:N", "named:N"}));
}

TEST(QVNotificationCenterTest, CallbacksMayRemoveAddAndPost) {
  QVNotificationCenter center;
  Recorder rec;
  int self = 0, victim = 0, late = 0;
  auto recordSelf = rec.callback("self");
  center.addObserver(&self, "N", nullptr, [&](const QVNotification& n) {
    recordSelf(n);
    center.removeObserver(&self);    // its own thread: must not wait for itself
    center.removeObserver(&victim);  // not yet called in this post: must not be
    center.addObserver(&late, "inner", nullptr, rec.callback("late"));
    center.post("inner");
  });
  center.addObserver(&victim, "N", nullptr, rec.callback("victim"));
  center.post("N");
  EXPECT_EQ(rec.take(), (Seen{"self:N", "late:inner"}));
  center.post("N");
  EXPECT_TRUE(rec.take().empty());
}

// An observer that dies right after removing itself while other threads post.
// A call that outlived the removal would read freed memory (ASan) or see the
// flag set after removal.
struct Mortal {
  std::atomic<bool> removed = false;
  std::atomic<int> calls = 0;
};

TEST(QVNotificationCenterTest, ObserversDieSafelyWhileOtherThreadsPost) {
  QVNotificationCenter center;
  std::atomic<bool> churning = true;
  std::atomic<int> callsAfterRemoval = 0;
  auto post = [&] {
    while (churning) center.post("tick");
  };
  auto churn = [&] {
    for (int i = 0; i < 500; ++i) {
      auto mortal = std::make_unique<Mortal>();
      Mortal* raw = mortal.get();
      center.addObserver(raw, i % 2 ? "tick" : "", nullptr, [raw, &callsAfterRemoval](auto&) {
        ++raw->calls;
        std::this_thread::yield();  // widens the window for a removal to overlap
        if (raw->removed) ++callsAfterRemoval;
      });
      // Removing once calls flow makes a call under way likely.
      for (int spin = 0; spin < 10000 && raw->calls == 0; ++spin) std::this_thread::yield();
      center.removeObserver(raw);
      raw->removed = true;
    }
  };
  std::vector<std::thread> posters, churners;
  for (int i = 0; i < 2; ++i) posters.emplace_back(post);
  for (int i = 0; i < 2; ++i) churners.emplace_back(churn);
  for (auto& t : churners) t.join();
  churning = false;
  for (auto& t : posters) t.join();
  EXPECT_EQ(callsAfterRemoval, 0);
}

}  // namespace
}  // namespace qv
