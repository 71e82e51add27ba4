#include "support/QVNetworkNamespace.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <thread>

#include "qvcore/platform/QVFileSystem.h"
#include "support/QVCapability.h"
#include "support/QVTempFolder.h"

namespace qv::test {

namespace {

// The exit status of a child that found the machine unable to isolate.
constexpr int kCannotIsolate = 77;
constexpr const char* kDbusDaemon = "/usr/bin/dbus-daemon";
constexpr const char* kAvahiDaemon = "/usr/sbin/avahi-daemon";

// A bus that lets anyone own any name and send anything: it exists only for
// the daemon and the processes of one test.
constexpr const char* kBusConfig = R"(<busconfig><type>system</type>
<listen>unix:path=/run/dbus/system_bus_socket</listen><auth>EXTERNAL</auth><policy context="default">
<allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>
</policy></busconfig>)";

constexpr const char* kAvahiConfig =
    "[server]\nhost-name=qvmdnstest\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=qvmdns0,qvmdns1\n"
    "[wide-area]\nenable-wide-area=no\n"
    "[publish]\npublish-hinfo=no\npublish-workstation=no\npublish-aaaa-on-ipv4=no\n";

// A shell command, with the system folders searched where ip lives.
bool shell(const std::string& command) {
  return std::system(("export PATH=$PATH:/usr/sbin:/sbin; " + command).c_str()) == 0;
}

}  // namespace

void QVNetworkNamespace::run(Kind kind, const std::function<void(QVNetworkNamespace&)>& body) {
  QV_REQUIRE_CAPABILITY(shell("command -v ip >/dev/null"), "the ip tool (iproute2)");
  const bool daemons = ::access(kDbusDaemon, X_OK) == 0 && ::access(kAvahiDaemon, X_OK) == 0;
  QV_REQUIRE_CAPABILITY(kind != Kind::kMdns || daemons, "dbus-daemon and avahi-daemon");
  QVTempFolder folder;
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0) << std::strerror(errno);
  if (child == 0) {
    ::alarm(150);  // a hang fails the test; what the child started dies with it
    int status;
    {
      QVNetworkNamespace network(folder.path());
      std::string error = network.isolate(kind);
      const bool isolated = error.empty();
      if (isolated && kind == Kind::kMdns) error = network.startDaemons();
      if (error.empty()) body(network);
      if (!error.empty()) std::fprintf(stderr, "%s\n", error.c_str());
      status = !isolated ? kCannotIsolate : error.empty() && !::testing::Test::HasFailure() ? 0 : 1;
    }
    std::fflush(nullptr);
    ::_exit(status);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  const bool isolated = !WIFEXITED(status) || WEXITSTATUS(status) != kCannotIsolate;
  QV_REQUIRE_CAPABILITY(isolated, "network and mount namespaces (CAP_SYS_ADMIN)");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the checks inside the namespace failed (see above); status " << status;
}

QVNetworkNamespace::QVNetworkNamespace(std::string folder) : folder_(std::move(folder)) {}

QVNetworkNamespace::~QVNetworkNamespace() {
  // The last started first: clients, then the daemon, then the bus.
  while (!started_.empty()) stop(started_.back(), SIGTERM, std::chrono::seconds(3));
}

std::string QVNetworkNamespace::isolate(Kind kind) {
  // Private mounts, so that what follows stays in this namespace.
  if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
      ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return std::string("unshare or mount: ") + std::strerror(errno);
  }
  if (kind == Kind::kLinks) return "";
  // No system bus and no host Avahi, nor its static services.
  if (::mount("qvmdns", "/run", "tmpfs", 0, "mode=0755") != 0) return "cannot mount /run";
  ::mkdir("/run/dbus", 0755);
  ::mkdir("/run/avahi-daemon", 0755);
  ::mount("qvmdns", "/etc/avahi/services", "tmpfs", MS_RDONLY, "mode=0755");  // where it exists
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  for (const char* arguments :
       {"link set lo up", "link add qvmdns0 type veth peer name qvmdns1",
        "addr add 10.231.0.1/24 dev qvmdns0", "addr add 10.231.0.2/24 dev qvmdns1",
        "link set qvmdns0 multicast on up", "link set qvmdns1 multicast on up"}) {
    if (!shell(std::string("ip ") + arguments)) return std::string("failed: ip ") + arguments;
  }
  return "";
}

std::string QVNetworkNamespace::startDaemons() {
  const std::string busConfig = folder_ + "/bus.conf";
  const std::string avahiConfig = folder_ + "/avahi-daemon.conf";
  std::ofstream(busConfig) << kBusConfig;
  std::ofstream(avahiConfig) << kAvahiConfig;
  spawn({kDbusDaemon, "--config-file=" + busConfig, "--nofork", "--nopidfile"},
        folder_ + "/dbus.out", folder_ + "/dbus.err");
  const auto bus = [] { return ::access("/run/dbus/system_bus_socket", F_OK) == 0; };
  if (!waitFor(bus, std::chrono::seconds(10))) {
    return "the D-Bus system bus did not start: " + readFile(folder_ + "/dbus.err");
  }
  const std::string log = folder_ + "/avahi.err";
  spawn({kAvahiDaemon, "--no-drop-root", "--no-chroot", "--no-rlimits", "-f", avahiConfig},
        folder_ + "/avahi.out", log);
  // Avahi serves clients once it has settled its host name.
  const auto settled = [&] {
    return readFile(log).find("Server startup complete") != std::string::npos;
  };
  if (!waitFor(settled, std::chrono::seconds(15)))
    return "avahi-daemon did not start: " + readFile(log);
  return "";
}

void QVNetworkNamespace::ip(const std::string& arguments) const {
  ASSERT_TRUE(shell("ip " + arguments)) << arguments;
}

void QVNetworkNamespace::addVethLink(const std::string& name, const std::string& peer,
                                     const std::string& address) const {
  ip("link add " + name + " type veth peer name " + peer);
  ip("link set " + peer + " up");
  ip("link set " + name + " up");
  // An IPv6 address is usable at once, without duplicate detection.
  const bool v6 = address.find(':') != std::string::npos;
  ip("addr add " + address + " dev " + name + (v6 ? " nodad" : ""));
}

pid_t QVNetworkNamespace::spawn(const std::vector<std::string>& argv, const std::string& stdoutPath,
                                const std::string& stderrPath) {
  return fork([&] {
    std::freopen(stdoutPath.c_str(), "w", stdout);
    std::freopen(stderrPath.c_str(), "w", stderr);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    std::fprintf(stderr, "exec %s: %s\n", args[0], std::strerror(errno));
    return 127;
  });
}

pid_t QVNetworkNamespace::fork(const std::function<int()>& body) {
  const pid_t parent = ::getpid();
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    // Dies with the namespace's process.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const int status = body();
    std::fflush(nullptr);
    ::_exit(status);
  }
  if (child > 0) started_.push_back(child);
  return child;
}

int QVNetworkNamespace::stop(pid_t pid, int signal, std::chrono::milliseconds patience) {
  if (signal != 0) ::kill(pid, signal);
  int status = -1;
  if (!waitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, patience)) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    status = -1;
  }
  started_.erase(std::remove(started_.begin(), started_.end(), pid), started_.end());
  return status;
}

bool QVNetworkNamespace::waitFor(const std::function<bool()>& predicate,
                                 std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string QVNetworkNamespace::readFile(const std::string& path) {
  return QVFileSystem::contentsAtPath(path, 1 << 24).value_or("");
}

}  // namespace qv::test
