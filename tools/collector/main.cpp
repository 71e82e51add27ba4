// qvcore-collector: a local collection server for development that keeps,
// decodes and shows what QVCore posts.

#include <signal.h>

#include <iostream>
#include <string>

#include "QVCollectorDump.h"
#include "QVCollectorOptions.h"
#include "QVCollectorReplyPolicy.h"
#include "QVCollectorServer.h"
#include "QVCollectorStore.h"

namespace {

using namespace qv::collector;

int fail(const std::string& why) {
  std::cerr << "qvcore-collector: " << why << "\n";
  return 1;
}

int dump(const QVCollectorOptions& options, const std::string& path) {
  using Format = QVCollectorDump::Format;
  const auto format = options.summary ? (options.json ? Format::kSummaryJson : Format::kSummary)
                      : options.json  ? Format::kJson
                                      : Format::kText;
  const QVCollectorStore store(path, QVCollectorStore::Mode::kExisting);
  QVCollectorDump::print(store, format, std::cout);
  return 0;
}

// SIGINT and SIGTERM are blocked before any server thread starts, so that
// none of them takes the signal, and the main thread waits for them.
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

int serve(const QVCollectorOptions& options, const std::string& path) {
  QVCollectorStore store(path);
  QVCollectorReplyPolicy policy(options.status, options.failFirst,
                                std::chrono::milliseconds(options.delayMs));
  const sigset_t signals = blockStopSignals();
  QVCollectorServer server(store, policy, std::cout, options.limits);
  const int port = server.bind(options.port);
  if (port == 0) return fail("cannot listen on 127.0.0.1 port " + std::to_string(options.port));
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
  std::cout << "qvcore-collector listening on " << url << "\n"
            << "  page: " << url << "_qv/\n"
            << "  database: " << path << std::endl;
  server.start();
  int signal = 0;
  sigwait(&signals, &signal);
  server.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  const auto options = QVCollectorOptions::parse(argc, argv, error);
  if (!options) {
    std::cerr << "qvcore-collector: " << error << " (see --help)\n";
    return 2;
  }
  if (options->help) {
    std::cout << QVCollectorOptions::usage(argv[0]);
    return 0;
  }
  const std::string path =
      options->database.empty() ? QVCollectorOptions::defaultDatabase() : options->database;
  try {
    if (options->command == QVCollectorOptions::Command::kDump) return dump(*options, path);
    return serve(*options, path);
  } catch (const std::exception& exception) {
    return fail(exception.what());
  }
}
