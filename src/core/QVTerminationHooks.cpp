#include "core/QVTerminationHooks.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/host/QVSwallowed.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVNotificationCenter.h"

namespace qv {

namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];

// Written once by install() before any handler can run, then only read.
int gPipe[2] = {-1, -1};
struct sigaction gPrevious[kSignalCount];

std::once_flag gTerminated;

// The signal handler does the one async-signal-safe thing: it hands the
// signal's number to the watcher thread.
void onSignal(int number) {
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(number);
  [[maybe_unused]] const ssize_t ignored = ::write(gPipe[1], &byte, 1);
  errno = saved;
}

// Runs the termination path once; a second caller (a signal during exit)
// waits for the first to finish.
void terminateOnce() {
  std::call_once(gTerminated, [] {
    QVNotificationCenter::defaultCenter().post(UIApplicationWillTerminateNotification,
                                               &QVApplication::sharedApplication());
  });
}

// Gives the signal back to whoever had it and sends it again, so the
// process ends (or carries on) as it would have without the hooks.
void chain(int number) {
  for (int k = 0; k < kSignalCount; ++k) {
    if (kSignals[k] == number) ::sigaction(number, &gPrevious[k], nullptr);
  }
  ::kill(::getpid(), number);
}

void watch() {
  for (;;) {
    unsigned char byte = 0;
    const ssize_t got = ::read(gPipe[0], &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got != 1) return;
    terminateOnce();
    chain(byte);
  }
}

bool startWatcher() {
  if (::pipe2(gPipe, O_CLOEXEC) != 0) return false;
  ::fcntl(gPipe[1], F_SETFL, O_NONBLOCK);
  // The watcher blocks every signal, so a signal sent again after the
  // termination reaches a thread of the host's, as it would have at first.
  sigset_t all, previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  std::thread(watch).detach();
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return true;
}

void hookSignals() {
  for (int k = 0; k < kSignalCount; ++k) {
    struct sigaction current {};
    ::sigaction(kSignals[k], nullptr, &current);
    const bool ignored = !(current.sa_flags & SA_SIGINFO) && current.sa_handler == SIG_IGN;
    if (ignored) continue;
    struct sigaction ours {};
    ours.sa_handler = onSignal;
    ours.sa_flags = SA_RESTART;
    ::sigemptyset(&ours.sa_mask);
    gPrevious[k] = current;
    ::sigaction(kSignals[k], &ours, nullptr);
  }
}

}  // namespace

bool QVTerminationHooks::install() {
  static std::mutex mutex;
  static bool installed = false;
  std::lock_guard lock(mutex);
  if (installed) return true;
  try {
    if (!startWatcher()) return false;
  } catch (const std::system_error& e) {
    noteSwallowed(__func__, e);
    return false;
  }
  hookSignals();
  std::atexit(terminateOnce);
  installed = true;
  return true;
}

}  // namespace qv
