#include "qvcore/platform/QVApplication.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include "qvcore/core/QVCore.h"

namespace qv {
namespace {

TEST(QVApplicationTest, HostFactsWithLinuxDefaults) {
  QVApplication& app = QVApplication::sharedApplication();
  EXPECT_EQ(app.applicationState(), 0);
  app.setStatusBarOrientation(5);  // not an interface orientation
  EXPECT_EQ(app.statusBarOrientation(), 0);

  struct utsname u {};
  ASSERT_EQ(::uname(&u), 0);
  const std::string linuxAgent = app.userAgent();
  EXPECT_EQ(linuxAgent, std::string("Mozilla/5.0 (X11; ") + u.sysname + " " + u.machine +
                            ") QVCore/" + QVCore::sharedInstance()->frameworkVersion());
  app.setUserAgent("Mozilla/5.0 (iPhone)");
  EXPECT_EQ(app.userAgent(), "Mozilla/5.0 (iPhone)");
  app.setUserAgent("");
  EXPECT_EQ(app.userAgent(), linuxAgent);
}

}  // namespace
}  // namespace qv
