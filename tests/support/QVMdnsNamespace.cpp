#include "QVMdnsNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace qv::test {

namespace {

constexpr const char* kDbusDaemon = "/usr/bin/dbus-daemon";
constexpr const char* kAvahiDaemon = "/usr/sbin/avahi-daemon";
constexpr const char* kSystemBusSocket = "/run/dbus/system_bus_socket";

std::string ipTool() {
  for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return {};
}

// A bus that lets anyone own any name and send anything: it exists only for
// the daemon and the processes of one test.
constexpr const char* kBusConfig = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
  </policy>
</busconfig>
)";

constexpr const char* kAvahiConfig = R"([server]
host-name=qvmdnstest
domain-name=local
use-ipv4=yes
use-ipv6=no
allow-interfaces=qvmdns0,qvmdns1
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
[reflector]
enable-reflector=no
)";

bool write(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  return static_cast<bool>(file);
}

bool run(const std::string& command, std::string& error) {
  if (std::system(command.c_str()) == 0) return true;
  error = "failed: " + command;
  return false;
}

// In a child about to run something: die with the parent, and send output
// to the two files.
void prepareChild(pid_t parent, const std::string& stdoutPath, const std::string& stderrPath) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int out = ::open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int err = ::open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out >= 0) ::dup2(out, STDOUT_FILENO);
  if (err >= 0) ::dup2(err, STDERR_FILENO);
}

}  // namespace

std::string QVMdnsNamespace::missingTools() {
  std::string missing;
  if (::access(kDbusDaemon, X_OK) != 0) missing += " dbus-daemon";
  if (::access(kAvahiDaemon, X_OK) != 0) missing += " avahi-daemon";
  if (ipTool().empty()) missing += " ip";
  return missing;
}

QVMdnsNamespace::QVMdnsNamespace(std::string folder) : folder_(std::move(folder)) {}

QVMdnsNamespace::~QVMdnsNamespace() {
  // The last started first: clients, then the daemon, then the bus.
  while (!started_.empty()) stop(started_.back(), SIGTERM, std::chrono::seconds(3));
}

bool QVMdnsNamespace::start(std::string& error, bool& cannotIsolate) {
  cannotIsolate = false;
  return isolate(error, cannotIsolate) && startDaemons(error);
}

bool QVMdnsNamespace::isolate(std::string& error, bool& cannotIsolate) {
  cannotIsolate = false;
  if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
    cannotIsolate = errno == EPERM || errno == EINVAL || errno == ENOSPC;
    error = std::string("unshare: ") + std::strerror(errno);
    return false;
  }
  // Private mounts, so that what follows stays in this namespace.
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("qvmdns", "/run", "tmpfs", 0, "mode=0755") != 0) {
    cannotIsolate = errno == EPERM;
    error = std::string("mount: ") + std::strerror(errno);
    return false;
  }
  ::mkdir("/run/dbus", 0755);
  ::mkdir("/run/avahi-daemon", 0755);
  // Static services of the host's Avahi would only add noise.
  if (::access("/etc/avahi/services", F_OK) == 0) {
    ::mount("qvmdns", "/etc/avahi/services", "tmpfs", MS_RDONLY, "mode=0755");
  }
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  const std::string ip = ipTool() + " ";
  return run(ip + "link set lo up", error) &&
         run(ip + "link add qvmdns0 type veth peer name qvmdns1", error) &&
         run(ip + "addr add 10.231.0.1/24 dev qvmdns0", error) &&
         run(ip + "addr add 10.231.0.2/24 dev qvmdns1", error) &&
         run(ip + "link set qvmdns0 multicast on up", error) &&
         run(ip + "link set qvmdns1 multicast on up", error);
}

bool QVMdnsNamespace::startDaemons(std::string& error) {
  const std::string busConfig = folder_ + "/bus.conf";
  const std::string avahiConfig = folder_ + "/avahi-daemon.conf";
  if (!write(busConfig, kBusConfig) || !write(avahiConfig, kAvahiConfig)) {
    error = "cannot write the daemons' configuration in " + folder_;
    return false;
  }
  spawn({kDbusDaemon, "--config-file=" + busConfig, "--nofork", "--nopidfile"},
        folder_ + "/dbus.out", folder_ + "/dbus.err");
  if (!waitFor([] { return ::access(kSystemBusSocket, F_OK) == 0; }, std::chrono::seconds(10))) {
    error = "the D-Bus system bus did not start: " + readFile(folder_ + "/dbus.err");
    return false;
  }
  spawn({kAvahiDaemon, "--no-drop-root", "--no-chroot", "--no-rlimits", "-f", avahiConfig},
        folder_ + "/avahi.out", folder_ + "/avahi.err");
  // Avahi serves clients once it has settled its host name.
  const std::string log = folder_ + "/avahi.err";
  if (!waitFor([&] { return readFile(log).find("Server startup complete") != std::string::npos; },
               std::chrono::seconds(15))) {
    error = "avahi-daemon did not start: " + readFile(log);
    return false;
  }
  return true;
}

pid_t QVMdnsNamespace::spawn(const std::vector<std::string>& argv, const std::string& stdoutPath,
                             const std::string& stderrPath) {
  const pid_t parent = ::getpid();
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    prepareChild(parent, stdoutPath, stderrPath);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    std::fprintf(stderr, "exec %s: %s\n", args[0], std::strerror(errno));
    ::_exit(127);
  }
  if (child > 0) started_.push_back(child);
  return child;
}

pid_t QVMdnsNamespace::fork(const std::function<int()>& body) {
  const pid_t parent = ::getpid();
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    const int status = body();
    std::fflush(nullptr);
    ::_exit(status);
  }
  if (child > 0) started_.push_back(child);
  return child;
}

int QVMdnsNamespace::await(pid_t pid, std::chrono::milliseconds patience) {
  int status = -1;
  const bool ended = waitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, patience);
  if (!ended) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    status = -1;
  }
  forget(pid);
  return status;
}

int QVMdnsNamespace::stop(pid_t pid, int signal, std::chrono::milliseconds patience) {
  ::kill(pid, signal);
  return await(pid, patience);
}

void QVMdnsNamespace::forget(pid_t pid) {
  started_.erase(std::remove(started_.begin(), started_.end(), pid), started_.end());
}

bool QVMdnsNamespace::waitFor(const std::function<bool()>& predicate,
                              std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string QVMdnsNamespace::readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace qv::test
