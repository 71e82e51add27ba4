#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace qv::test {

// The ip tool of iproute2; empty when it is not installed.
inline std::string ipTool() {
  for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return {};
}

// Runs body in a child process in a network namespace of its own, so that
// the links and routes it makes never touch the host's. Failures inside are
// printed by the child; its exit status carries the verdict. Skips the test
// where no namespace can be made or ip is missing.
inline void inOwnNetworkNamespace(const std::function<void(const std::string& ip)>& body) {
  constexpr int kCannotIsolate = 77;
  const std::string ip = ipTool();
  if (ip.empty()) GTEST_SKIP() << "iproute2 (ip) is not installed";
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0) << std::strerror(errno);
  if (child == 0) {
    ::alarm(120);  // a hang fails the test instead of blocking it
    if (::unshare(CLONE_NEWNET) != 0) {
      const int error = errno;
      std::fprintf(stderr, "unshare(CLONE_NEWNET): %s\n", std::strerror(error));
      ::_exit(error == EPERM || error == EINVAL ? kCannotIsolate : 1);
    }
    body(ip);
    std::fflush(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotIsolate) {
    GTEST_SKIP() << "no network namespace can be made here (needs CAP_SYS_ADMIN)";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the checks inside the namespace failed (see above); status " << status;
}

// Runs "ip arguments" and fails the test unless it succeeds.
inline void runIp(const std::string& ip, const std::string& arguments) {
  const std::string command = ip + " " + arguments;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// A veth pair whose far end stays in the namespace, so that name has a
// carrier as long as peer is up; address (with its prefix) is name's.
inline void addVethLink(const std::string& ip, const std::string& name, const std::string& peer,
                        const std::string& address) {
  runIp(ip, "link add " + name + " type veth peer name " + peer);
  runIp(ip, "link set " + peer + " up");
  runIp(ip, "link set " + name + " up");
  // An IPv6 address is usable at once, without duplicate detection.
  const bool v6 = address.find(':') != std::string::npos;
  runIp(ip, "addr add " + address + " dev " + name + (v6 ? " nodad" : ""));
}

}  // namespace qv::test
