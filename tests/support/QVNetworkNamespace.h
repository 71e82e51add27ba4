#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qv::test {

// A network of the test's own: QVNetworkNamespace::run() forks a child that
// enters new network and mount namespaces and runs the body there, so the
// links, routes and daemons it makes never touch the host's. Failures inside
// are printed by the child; its exit status carries the verdict back. Where
// the machine cannot isolate (no ip tool, no CAP_SYS_ADMIN, no daemons) the
// test is skipped, or failed in CI.
class QVNetworkNamespace {
 public:
  enum class Kind {
    kLinks,  // the loopback link down, nothing else: the body makes its links
    // /run private (no system bus, no host Avahi) and a veth pair qvmdns0,
    // qvmdns1 (10.231.0.1 and .2, multicast on, no route out)...
    kMdnsWithoutDaemons,
    kMdns,  // ...with a D-Bus system bus and an Avahi daemon on those links
  };

  static void run(Kind kind, const std::function<void(QVNetworkNamespace&)>& body);

  // Runs "ip arguments" and fails the test unless it succeeds.
  void ip(const std::string& arguments) const;
  // A veth pair whose far end stays here, so name has a carrier as long as
  // peer is up; address (with its prefix) is name's.
  void addVethLink(const std::string& name, const std::string& peer,
                   const std::string& address) const;

  // Runs argv with its output going to the two files. The process is killed
  // when the caller dies and when this object goes.
  pid_t spawn(const std::vector<std::string>& argv, const std::string& stdoutPath,
              const std::string& stderrPath);
  // Forks a process that runs body and exits with its result, with the same
  // care as spawn.
  pid_t fork(const std::function<int()>& body);
  // Sends signal (none when 0) and waits up to patience for the process to
  // end; SIGKILL after that. The wait status, or -1 when it had to be killed.
  int stop(pid_t pid, int signal, std::chrono::milliseconds patience);

  // Checks predicate every 20 ms until it holds or limit passes.
  static bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds limit);
  static std::string readFile(const std::string& path);

  // Configuration files and daemon logs go here.
  const std::string& folder() const { return folder_; }

  ~QVNetworkNamespace();
  QVNetworkNamespace(const QVNetworkNamespace&) = delete;
  QVNetworkNamespace& operator=(const QVNetworkNamespace&) = delete;

 private:
  explicit QVNetworkNamespace(std::string folder);
  // In the child: what went wrong, empty when all went well.
  std::string isolate(Kind kind);
  std::string startDaemons();

  std::string folder_;
  std::vector<pid_t> started_;
};

}  // namespace qv::test
