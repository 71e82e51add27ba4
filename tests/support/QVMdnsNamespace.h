#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qv::test {

// A multicast DNS network of its own for the calling process: new network
// and mount namespaces, the loopback link and a veth pair (both ends inside,
// multicast on, no route out), a tmpfs over /run so that the D-Bus system
// bus socket and Avahi's files are private, then a D-Bus system bus and an
// Avahi daemon limited to the veth links. Nothing is announced on the host's
// interfaces and nothing it does is seen outside.
//
// unshare() of a mount namespace needs a single-threaded process: use it in
// a child made with fork() that has started no threads.
class QVMdnsNamespace {
 public:
  // The exit status of a child that found the machine unable to isolate.
  static constexpr int kCannotIsolate = 77;

  // What is missing to run one (dbus-daemon, avahi-daemon, ip); empty when
  // nothing is.
  static std::string missingTools();

  // Configuration files and daemon logs go into folder.
  explicit QVMdnsNamespace(std::string folder);
  // Stops every process it started.
  ~QVMdnsNamespace();
  QVMdnsNamespace(const QVMdnsNamespace&) = delete;
  QVMdnsNamespace& operator=(const QVMdnsNamespace&) = delete;

  // Enters the namespaces and starts the bus and the daemon, waiting until
  // Avahi serves. False with error set on failure; cannotIsolate tells that
  // the machine forbids namespaces, as opposed to a fault.
  bool start(std::string& error, bool& cannotIsolate);
  // Only enters the namespaces and brings the links up: a network with no
  // bus and no daemon.
  bool isolate(std::string& error, bool& cannotIsolate);

  // Runs argv with its output going to the two files. The process is killed
  // when the caller dies and when this object goes.
  pid_t spawn(const std::vector<std::string>& argv, const std::string& stdoutPath,
              const std::string& stderrPath);
  // Forks a process that runs body and exits with its result, with the same
  // care as spawn.
  pid_t fork(const std::function<int()>& body);

  // Sends signal and waits up to patience for the process to end; SIGKILL
  // after that. Answers the wait status, or -1 when it had to be killed.
  int stop(pid_t pid, int signal, std::chrono::milliseconds patience);
  // Waits up to patience for the process to end by itself; SIGKILL after
  // that. Answers the wait status, or -1 when it had to be killed.
  int await(pid_t pid, std::chrono::milliseconds patience);

  // Checks predicate every 20 ms until it holds or limit passes.
  static bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds limit);
  static std::string readFile(const std::string& path);

  const std::string& folder() const { return folder_; }

 private:
  bool startDaemons(std::string& error);
  void forget(pid_t pid);

  std::string folder_;
  std::vector<pid_t> started_;
};

}  // namespace qv::test
