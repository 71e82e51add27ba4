#include "qvcore/platform/QVLog.h"

#include <gtest/gtest.h>

#include <cmath>
#include <mutex>
#include <thread>

#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/platform/QVValue.h"

namespace qv {
namespace {

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
