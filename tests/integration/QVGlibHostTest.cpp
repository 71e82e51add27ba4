// The GLib example host: the core's main run loop driven from a GLib main
// loop posts, flushes to a server on 127.0.0.1 and exits.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "support/QVCapability.h"
#include "support/QVGzip.h"
#include "support/QVTempFolder.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

TEST(QVGlibHostTest, TheCoreRunsFromAGlibMainLoopAndItsPostReachesTheServer) {
#ifndef QVTEST_GLIB_HOST
  QV_REQUIRE_CAPABILITY(false, "glib-2.0 at build time");
#else
  test::QVTestHttpServer server;
  test::QVTempFolder home;
  // A host still running after a minute is killed.
  const std::string command = "QVCORE_HOME='" + home.path() + "' QVCORE_BUNDLE_PATH='" +
                              QVTEST_CORE_BUNDLE_FOLDER + "' timeout -s KILL 60 '" +
                              QVTEST_GLIB_HOST + "' '" + server.url("/collect") + "'";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  ASSERT_EQ(server.requests().size(), 1u);
  const auto request = server.request(0);
  const std::string body = test::gunzip(request.body).value_or(request.body);
  EXPECT_NE(body.find("\"offset\":77"), std::string::npos) << body;
#endif
}

}  // namespace
}  // namespace qv
