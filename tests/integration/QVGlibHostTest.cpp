// The GLib example host: the core's main run loop driven from a GLib main
// loop posts, flushes to a server on 127.0.0.1 and exits.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/QVCapability.h"
#include "support/QVGzip.h"
#include "support/QVTempFolder.h"
#include "support/QVTestHttpServer.h"

extern char** environ;

namespace qv {
namespace {

// The host's exit status; a host still running after a minute is killed.
int runHost(const std::string& url, const std::string& home) {
#ifdef QVTEST_GLIB_HOST
  std::string program = QVTEST_GLIB_HOST;
  std::string homeVariable = "QVCORE_HOME=" + home;
  std::string bundleVariable = std::string("QVCORE_BUNDLE_PATH=") + QVTEST_CORE_BUNDLE_FOLDER;
  std::vector<char*> envp = {homeVariable.data(), bundleVariable.data()};
  for (char** entry = environ; *entry; ++entry) envp.push_back(*entry);
  envp.push_back(nullptr);
  std::string argument = url;
  char* argv[] = {program.data(), argument.data(), nullptr};
  pid_t pid = -1;
  if (::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
  int status = 0;
  for (int waited = 0; waited < 6000; ++waited) {
    if (::waitpid(pid, &status, WNOHANG) == pid) return status;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return -1;
#else
  (void)url;
  (void)home;
  return -1;
#endif
}

TEST(QVGlibHostTest, TheCoreRunsFromAGlibMainLoopAndItsPostReachesTheServer) {
#ifndef QVTEST_GLIB_HOST
  QV_REQUIRE_CAPABILITY(false, "glib-2.0 at build time");
#endif
  test::QVTestHttpServer server;
  test::QVTempFolder home;
  const int status = runHost(server.url("/collect"), home.path());
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  ASSERT_EQ(server.requests().size(), 1u);
  const auto request = server.request(0);
  const std::string body = test::gunzip(request.body).value_or(request.body);
  EXPECT_NE(body.find("\"offset\":77"), std::string::npos) << body;
}

}  // namespace
}  // namespace qv
