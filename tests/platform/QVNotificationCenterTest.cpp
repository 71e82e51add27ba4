// How the core tells others: notifications to observers, lines to the log.
#include "qvcore/platform/QVNotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>

#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/platform/QVLog.h"

namespace qv {
namespace {

class QVNotificationCenterTest : public ::testing::Test {
 protected:
  // Records a delivery as "tag:name ".
  QVNotificationCenter::Callback record(std::string tag) {
    return [this, tag](const QVNotification& n) { seen += tag + ":" + n.name + " "; };
  }
  std::string take() { return std::exchange(seen, ""); }

  QVNotificationCenter center;
  std::string seen;
};

TEST_F(QVNotificationCenterTest, FiltersAndRemovesByNameAndSender) {
  int a = 0, b = 0, any = 0, named = 0, multi = 0;
  center.addObserver(&any, "", nullptr, record("any"));
  center.addObserver(&named, "N", nullptr, record("named"));
  center.addObserver(&multi, "N", &a, record("NA"));
  center.addObserver(&multi, "", &b, record("fromB"));
  center.addObserver(&multi, "M", nullptr, record("M1"));
  center.addObserver(&multi, "M", nullptr, record("M2"));
  center.post("N", &a);
  EXPECT_EQ(take(), "any:N named:N NA:N ");
  center.post("M", &b);
  EXPECT_EQ(take(), "any:M fromB:M M1:M M2:M ");

  center.removeObserver(&multi, "M", nullptr);
  center.removeObserver(&multi, "N", &b);  // selects nothing
  EXPECT_EQ(center.observationCount(&multi), 2u);
  center.post("M", &b);
  EXPECT_EQ(take(), "any:M fromB:M ");
  center.removeObserver(&multi);
  center.post("N", &a);
  EXPECT_EQ(take(), "any:N named:N ");
}

TEST_F(QVNotificationCenterTest, CallbacksMayRemoveAddAndPost) {
  int self = 0, victim = 0, late = 0;
  center.addObserver(&self, "N", nullptr, [&, recordSelf = record("self")](const auto& n) {
    recordSelf(n);
    center.removeObserver(&self);    // its own thread: must not wait for itself
    center.removeObserver(&victim);  // not yet called in this post: must not be
    center.addObserver(&late, "inner", nullptr, record("late"));
    center.post("inner");
  });
  center.addObserver(&victim, "N", nullptr, record("victim"));
  center.post("N");
  center.post("N");
  EXPECT_EQ(take(), "self:N late:inner ");
}

// Observers die right after removing themselves while two threads post: a
// call that outlived the removal would read freed memory (ASan) or see the
// flag set after removal.
TEST_F(QVNotificationCenterTest, ObserversDieSafelyWhileOtherThreadsPost) {
  struct Mortal {
    std::atomic<bool> removed = false;
    std::atomic<int> calls = 0;
  };
  std::atomic<bool> churning = true;
  std::atomic<int> callsAfterRemoval = 0;
  const auto post = [&] {
    while (churning) center.post("tick");
  };
  std::thread posters[] = {std::thread(post), std::thread(post)};
  for (int i = 0; i < 1000; ++i) {
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
  churning = false;
  for (auto& poster : posters) poster.join();
  EXPECT_EQ(callsAfterRemoval, 0);
}

// An exception the framework catches (a value JSON cannot carry makes the
// message's text fail) is written as a debug line only when asked for.
TEST(QVLogTest, SwallowedExceptionsShowAsDebugLinesOnlyWhenAsked) {
  std::vector<std::string> lines;
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  const QVValue unwritable{{"ratio", std::nan("")}};
  EXPECT_FALSE(QVLog::isDebugEnabled()) << "off unless QVCORE_DEBUG=1";
  EXPECT_EQ(QVCoreExtensions::toJson(unwritable), "");
  EXPECT_TRUE(lines.empty());
  QVLog::setDebugEnabled(true);
  EXPECT_EQ(QVCoreExtensions::toJson(unwritable), "");
  QVLog::setSink(nullptr);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("QVCore debug: toJson: ", 0), 0u) << lines[0];
}

// Each line arrives once and whole.
TEST(QVLogTest, LinesReachTheSinkWholeFromAnyThreadElseStandardError) {
  std::mutex mutex;
  std::multiset<std::string> lines, expected;
  QVLog::setSink([&](const std::string& line) {
    std::lock_guard lock(mutex);
    lines.insert(line);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) QVLog::logFormat("thread %d line %d", t, i);
    });
    for (int i = 0; i < 50; ++i)
      expected.insert("thread " + std::to_string(t) + " line " + std::to_string(i));
  }
  for (auto& thread : threads) thread.join();
  QVLog::setSink(nullptr);
  testing::internal::CaptureStderr();
  QVLog::logFormat("Background Time:%f", 2.5);
  QVLog::log("ends\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Background Time:2.500000\nends\n");
  EXPECT_EQ(lines, expected);
}

}  // namespace
}  // namespace qv
