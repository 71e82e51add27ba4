// The log relay end to end: qvcore-logtool announces itself through a real
// Avahi daemon, and applications find it, connect and post, all inside a
// network namespace of the test's own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "qvcore/logrelay/VintraZANLogClient.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVNetworkNamespace.h"

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

namespace qv {
namespace {

using Namespace = test::QVNetworkNamespace;

// Beside this test's executable in the build tree, or where the environment
// says.
std::string logToolPath() {
  if (const char* chosen = std::getenv("QVCORE_LOGTOOL")) return chosen;
  const auto build = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
  return build / "tools/logtool/qvcore-logtool";
}

struct App {
  std::string name;
  std::vector<std::string> texts;
};

// An application process: its bundle names it, it posts its texts and runs
// its main loop until they have been written, then exits, closing its
// stream. Its log lines go to standard error.
int runApp(const Namespace& network, const App& app) {
  const std::string bundle = network.folder() + "/" + app.name;
  std::filesystem::create_directories(bundle);
  QVPropertyList::writeDictionaryToFile({{"CFBundleName", app.name}}, bundle + "/Info.plist",
                                        QVPropertyList::Format::kXML);
  QVBundle::setMainBundlePath(bundle);
  QVLog::setSink([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  for (const auto& text : app.texts) VintraZANLogClient::postToZANVintraSDKTool(text);
  // Due after the texts' own 7-second tasks, and queued behind the writes
  // that those hand on.
  std::atomic<bool> written{false};
  QVRunLoop& loop = QVRunLoop::main();
  loop.postAfter(7s, [&] { loop.post([&] { loop.post([&] { written = true; }); }); });
  return loop.runUntil([&] { return written.load(); }, 30s) ? 0 : 3;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Each text of the app appears after its header and after the text before.
void expectInOrder(const std::string& printed, const App& app) {
  size_t at = printed.find("ZAN_SDK_START_NEW_RUN_FOR_APP\t" + app.name + "\t");
  ASSERT_NE(at, std::string::npos) << "no header for " << app.name;
  EXPECT_EQ(printed.find('\n', at), printed.find(" on ", at) + 14)
      << "the header ends with the date and a newline";
  for (const auto& text : app.texts) {
    const size_t next = printed.find(text, at);
    ASSERT_NE(next, std::string::npos) << "missing or out of order: " << text;
    at = next;
  }
}

// Runs inside the namespaces, in a child process; its failures are printed
// there and its exit status carries them out.
void toolPrintsWhatAppsPost(Namespace& network, const std::string& tool) {
  const std::string out = network.folder() + "/tool.out";
  const std::string err = network.folder() + "/tool.err";
  // Under ThreadSanitizer: libdbus takes two of its own locks in one order
  // when the tool's Avahi client connects and in the other when it closes.
  const std::string suppressions = network.folder() + "/tsan.supp";
  std::ofstream(suppressions) << "deadlock:libdbus-1.so\n";
  const char* options = std::getenv("TSAN_OPTIONS");
  ::setenv("TSAN_OPTIONS",
           ((options ? std::string(options) + ":" : "") + "suppressions=" + suppressions).c_str(),
           1);
  const pid_t toolProcess = network.spawn({tool, "--name", "QVCore log test"}, out, err);
  ASSERT_TRUE(Namespace::waitFor(
      [&] { return Namespace::readFile(err).find("announced") != std::string::npos; }, 20s))
      << Namespace::readFile(err);

  const std::vector<App> apps = {
      {"App One", {"first from one\n", "second from one, grüß dich\n", "third from one"}},
      {"App Two", {"only from two\n"}}};
  std::vector<pid_t> processes;
  for (const auto& app : apps) {
    processes.push_back(network.fork([&] {
      std::freopen((network.folder() + "/" + app.name + ".log").c_str(), "w", stderr);
      return runApp(network, app);
    }));
  }
  for (size_t i = 0; i < apps.size(); ++i) {
    const int status = network.stop(processes[i], 0, 40s);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << apps[i].name << " ended with " << status;
    const std::string log = Namespace::readFile(network.folder() + "/" + apps[i].name + ".log");
    EXPECT_THAT(log, AllOf(HasSubstr("didFindService: "), HasSubstr("connected to: 10.231.0."),
                           Not(HasSubstr("Stream has no space")), Not(HasSubstr("Caught:")),
                           Not(HasSubstr("connected to: 0.0.0.0"))));
  }
  // The tool has printed everything once it has seen both peers close.
  EXPECT_TRUE(Namespace::waitFor(
      [&] { return occurrences(Namespace::readFile(err), " closed") == apps.size(); }, 10s))
      << Namespace::readFile(err);
  const int toolStatus = network.stop(toolProcess, SIGTERM, 5s);
  EXPECT_TRUE(WIFEXITED(toolStatus) && WEXITSTATUS(toolStatus) == 0)
      << "the tool survives closing peers and ends cleanly on SIGTERM: " << toolStatus << "\n"
      << Namespace::readFile(err);

  const std::string printed = Namespace::readFile(out);
  for (const auto& app : apps) expectInOrder(printed, app);
  EXPECT_EQ(occurrences(printed, "ZAN_SDK_START_NEW_RUN_FOR_APP"), apps.size()) << printed;
  EXPECT_EQ(occurrences(printed, "==== new run, from 10.231.0."), apps.size()) << printed;
}

TEST(QVLogRelayNamespaceTest, TheToolPrintsWhatApplicationsOnItsNetworkPost) {
  const std::string tool = logToolPath();
  ASSERT_EQ(::access(tool.c_str(), X_OK), 0) << "build qvcore-logtool first: " << tool;
  Namespace::run(Namespace::Kind::kMdns,
                 [&](Namespace& network) { toolPrintsWhatAppsPost(network, tool); });
}

TEST(QVLogRelayNamespaceTest, WithoutAnAvahiDaemonTheSearchFailsAndTextIsDropped) {
  Namespace::run(Namespace::Kind::kMdnsWithoutDaemons, [](Namespace&) {
    std::mutex mutex;
    std::map<std::string, int> said;
    QVLog::setSink([&](const std::string& line) {
      std::lock_guard lock(mutex);
      ++said[line];
    });
    const auto count = [&](const std::string& line) {
      std::lock_guard lock(mutex);
      return said[line];
    };
    auto clock = std::make_shared<QVFakeClock>();
    QVRunLoop& loop = QVRunLoop::main();
    loop.setClock(clock);
    VintraZANLogClient::postToZANVintraSDKTool("lost");
    EXPECT_TRUE(loop.runUntil([&] { return count("didNotSearch") == 1; }, 10s));
    clock->advance(7s);
    loop.runUntilIdle();
    EXPECT_EQ(count("Stream has no space"), 2) << "the header and the text";
    QVLog::setSink(nullptr);
  });
}

}  // namespace
}  // namespace qv
