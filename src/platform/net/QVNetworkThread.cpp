#include "platform/net/QVNetworkThread.h"

namespace qv {

QVNetworkThread& QVNetworkThread::shared() {
  static auto* instance = new QVNetworkThread;
  return *instance;
}

QVNetworkThread::QVNetworkThread() : thread_([this] { io_.run(); }) {
  // Never joined: the object lives as long as the process.
  thread_.detach();
}

}  // namespace qv
