// qvcore-logtool: receives the text that the log relay sends, announcing
// itself on the local network so that the relay finds it.

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "QVLogToolAnnouncer.h"
#include "QVLogToolOptions.h"
#include "QVLogToolPrinter.h"
#include "QVLogToolServer.h"
#include "qvcore/platform/QVRunLoop.h"

namespace {

std::atomic<int> exitStatus{0};

std::string defaultName() {
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string name = std::string("qvcore-logtool on ") + host;
  // DNS-SD instance names are one label of at most 63 bytes.
  if (name.size() > 63) name.resize(63);
  return name;
}

// SIGINT and SIGTERM arrive through a descriptor that the main loop watches,
// so the loop ends between two tasks and everything is torn down in order.
// Blocked before any thread starts, so that no other thread takes them.
int signalDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

int fail(const std::string& why) {
  std::fprintf(stderr, "qvcore-logtool: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  const auto options = qv::QVLogToolOptions::parse(argc, argv, error);
  if (!options) {
    std::fprintf(stderr, "qvcore-logtool: %s (see --help)\n", error.c_str());
    return 2;
  }
  if (options->help) {
    std::fputs(qv::QVLogToolOptions::usage(argv[0]).c_str(), stdout);
    return 0;
  }

  const int signals = signalDescriptor();
  if (signals < 0) return fail("signals cannot be watched");
  qv::QVRunLoop& loop = qv::QVRunLoop::main();
  const auto signalWatch = loop.watchReadable(signals, [&loop, signals] {
    signalfd_siginfo info;
    while (::read(signals, &info, sizeof info) == sizeof info) {
    }
    loop.stop();
  });

  qv::QVLogToolPrinter printer(stdout);
  qv::QVLogToolServer server(loop, printer, std::chrono::seconds(options->idleTimeoutSeconds));
  const uint16_t port = server.listen(options->port, error);
  if (port == 0) return fail("cannot listen: " + error);
  std::fprintf(stderr, "qvcore-logtool: listening on TCP port %u\n", static_cast<unsigned>(port));

  const std::string name = options->name.empty() ? defaultName() : options->name;
  qv::QVLogToolAnnouncer announcer(name, port, [&loop](const std::string& why) {
    std::fprintf(stderr, "qvcore-logtool: %s\n", why.c_str());
    exitStatus = 1;
    loop.stop();
  });
  if (!announcer.start(error)) return fail(error);

  loop.run();
  loop.cancelWatch(signalWatch);
  ::close(signals);
  return exitStatus;
}
