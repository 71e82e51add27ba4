#include "qvcore/platform/QVLog.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <thread>

namespace qv {
namespace {

TEST(QVLogTest, LinesReachTheSinkWholeFromAnyThreadElseStandardError) {
  std::mutex mutex;
  std::multiset<std::string> lines;
  QVLog::setSink([&](const std::string& line) {
    std::lock_guard lock(mutex);
    lines.insert(line);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) QVLog::logFormat("thread %d line %d", t, i);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(lines.size(), 200u);
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 200u);
  EXPECT_EQ(lines.count("thread 3 line 49"), 1u);

  QVLog::setSink(nullptr);
  testing::internal::CaptureStderr();
  QVLog::logFormat("Background Time:%f", 2.5);
  QVLog::log("ends\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Background Time:2.500000\nends\n");
  EXPECT_EQ(lines.size(), 200u);
}

}  // namespace
}  // namespace qv
