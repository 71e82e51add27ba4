// Scripts driven through the shell, checked against the library's state and
// what reaches a local server.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <sstream>

#include "QVShell.h"
#include "QVShellFacts.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVFakeServiceDiscovery.h"
#include "support/QVNetworkNamespace.h"
#include "support/QVTempFolder.h"
#include "support/QVTestHttpServer.h"

namespace qv::shell {
namespace {

struct ScriptRun {
  int status;
  std::string out;
  std::string err;
};

// A host application with the core's settings bundle (levels up to 3 on
// Wi-Fi, 1 on cellular, plain bodies) and module bundles posting to a local
// server.
class QVShellTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.write("bundles/QVCoreSettings.bundle/QVCoreAdvancedConfig.json",
                  R"({"PostMessageLevelWiFi": 3, "PostMessageLevelCellular": 1,
                      "CompressPostMessage": false, "DoPostAppGoesToBackground": true})");
    folder_.writePlist("app/Info.plist", {{"CFBundleName", "ShellApp"},
                                          {"CFBundleVersion", "4.5.6"},
                                          {"CFBundleIdentifier", "com.example.shell"}});
  }

  // The lines that set the host up and enable the core, then modules
  // ("Name options") posting to the server, each enabled.
  std::string host(const std::vector<std::string>& modules = {}) {
    std::string script = "home " + folder_.at("home") + "\nmain-bundle " + folder_.at("app") +
                         "\nbundles " + folder_.at("bundles") + "\n";
    std::string enable = "enable\n";
    for (const auto& module : modules) {
      const std::string name = module.substr(0, module.find(' ')), bundle = "bundles/" + name;
      folder_.write(bundle + ".bundle/AdvancedConfig.json",
                    R"({"PostMessageUrl": ")" + server_.url("/" + name) + "\"}");
      script += "module " + name + " " + folder_.at(bundle + ".bundle") +
                module.substr(name.size()) + "\n";
      enable += "enable-module " + name + "\n";
    }
    return script + enable;
  }

  ScriptRun run(const std::string& script) {
    std::istringstream in(script);
    std::ostringstream out, err;
    const int status = shell_.runScript(in, out, err);
    return {status, out.str(), err.str()};
  }
  std::string answer(const std::string& line) {
    auto result = run(line + "\n");
    EXPECT_EQ(result.status, 0) << line << ": " << result.err;
    return result.out.substr(0, result.out.size() - 1);  // without the last newline
  }

  test::QVTempFolder folder_;
  test::QVTestHttpServer server_;
  QVShell shell_;
};

TEST_F(QVShellTest, ABadCommandPrintsOneErrorLineAndNothingElseAndTheScriptGoesOn) {
  // clang-format off
  for (const char* line : {
      "nonsense 1 2", "echo \"open", "enable now", "module M", "module M /b saves-config=yes",
      "module M /b headers=[1]", "module M /b headers={\"a\": 1} saves-config=true", "post",
      "post M level=abc", "post M bogus=1", "post M fields=[1]", "post M fields={bad",
      "post-context M name=a referrer=b", "config get M", "config set M K not-json",
      "config move M", "network wired", "network wifi cable",
      "network wifi address=nowhere", "network system radio=LTE", "lifecycle sleep", "orientation up",
      "orientation 1 ui=x", "screen 1", "screen 1 nan", "fact", "fact nope", "fact deviceID now",
      "wait-flush -1", "run forever", "run 1e12", "log", "post-many M 1 threads=100000",
      "post-many M 1 threads=0"}) {
    // clang-format on
    auto result = run(std::string(line) + "\n");
    EXPECT_EQ(result.status, 1) << line;
    EXPECT_EQ(result.out, "") << line;
    EXPECT_EQ(result.err.rfind("error: ", 0), 0u) << line << ": " << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  // Quoted words, quoted options and a JSON option to the end of the line.
  auto mixed =
      run("# comment\n\necho \"hello  world\" a=\"b \\\"c\\\"\" fields={\"k\": \"v w\"}  \n"
          "nonsense\ndisable-module Nobody\n");
  EXPECT_EQ(mixed.status, 1);
  EXPECT_EQ(mixed.out, "hello  world a=b \"c\" fields={\"k\": \"v w\"}\ntrue\n");
  auto clean = run("session-id\nmodule Shelled /nowhere\nenable-module Unknown\n");
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out, QVCore::sharedInstance()->currentSessionID() + "\nok\nfalse\n");
}

// In a network namespace of the test's own, whose default route leaves by
// enp3s0: "network system" reads that, the host-fed network lists only the
// address a line gives.
TEST_F(QVShellTest, NetworkSystemReadsTheMachinesNetworkAndOtherNetworksGoBack) {
  test::QVNetworkNamespace::run(test::QVNetworkNamespace::Kind::kLinks, [this](auto& net) {
    net.ip("link set lo up");
    net.addVethLink("enp3s0", "peer0", "10.200.0.1/24");
    net.ip("route add default via 10.200.0.2 dev enp3s0");
    ASSERT_EQ(answer(host()), "ok\nok\nok\ntrue");
    const std::string facts =
        "fact currentNetworkStatus\nfact networkWiFiIPAddress\nfact currentConnectionType";
    EXPECT_EQ(answer("network none\n" + facts), "ok\n1\n\nN/A") << "host-fed";
    EXPECT_EQ(answer("network system\n" + facts + "\nfact networkIPAddress"),
              "ok\n2\n10.200.0.1\nWifi\n10.200.0.1");
    net.ip("route del default");
    EXPECT_EQ(answer("network system\n" + facts), "ok\n1\n\nN/A") << "no default route";
    EXPECT_EQ(answer("network cellular address=198.51.100.7\n" + facts), "ok\n3\n\nWWAN");
    EXPECT_EQ(answer("network wifi address=192.0.2.7\n" + facts), "ok\n2\n192.0.2.7\nWifi");
    EXPECT_EQ(answer("fact networkIPAddress"), "10.200.0.1") << "looked up once per process";
  });
}

TEST_F(QVShellTest, PlatformEventsReachTheCoresFacts) {
  ASSERT_EQ(run(host()).out, "ok\nok\nok\ntrue\n");
  struct Case {
    std::string event, fact, expected;
  };
  const Case cases[] = {
      {"network cellular radio=LTE", "currentConnectionType", "4G"},
      {"network cellular radio=CTRadioAccessTechnologyEdge", "currentNetworkStatus", "3"},
      {"network cellular radio=CTRadioAccessTechnologyEdge", "currentConnectionType", "2G"},
      {"network cellular", "currentConnectionType", "WWAN"},
      {"network wifi radio=LTE", "currentConnectionType", "Wifi"},
      {"network none", "currentNetworkStatus", "1"},
      {"orientation 3 ui=3", "currentDeviceOrientation", "3"},
      {"orientation 1 ui=4", "currentUIOrientation", "4"},
      {"orientation 4", "currentOrientationName", "LANDSCAPE"},
      {"screen 390 844.5 scale=3", "currentScreenDimensions", "[390,844.5]"},
      {"fact setQVAdvertisingId \"ad 7\"", "getQVAdvertisingId", "ad 7"},
      {"echo", "appName", "ShellApp"},
      {"echo", "appVersion", "4.5.6"},
  };
  for (const auto& c : cases) {
    answer(c.event);
    EXPECT_EQ(answer("fact " + c.fact), c.expected) << c.event;
  }
  for (const auto& name : QVShellFacts::names()) {
    auto result = run("fact " + name + "\n");
    EXPECT_EQ(result.status, 0) << name << ": " << result.err;
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << name;
  }
  for (const auto& [event, state] :
       {std::pair{"background", 2}, {"foreground", 1}, {"active", 0}}) {
    answer(std::string("lifecycle ") + event);
    EXPECT_EQ(QVApplication::sharedApplication().applicationState(), state) << event;
  }
}

TEST_F(QVShellTest, PostedMessagesPassTheGateAndReachTheServerWithTheModulesHeaders) {
  auto result = run(host({"Shop headers={\"X-Shell\": \"on\"}"}) +
                    "post Shop session=S1 offset=7 fields={\"screen\": \"Home\"}\n"
                    "post-context Shop type=3 name=Home referrer=Launch session=S1\n"
                    "post Shop level=0\npost Shop level=4\n"
                    "post-many Shop 200 threads=4 session=S2 progress=true\n"
                    "network cellular\npost Shop level=2\n"
                    "flush\nwait-flush 60\nwait-flush 0\n"
                    "config set Shop Key {\"k\": \"v w\"}\nconfig get Shop Key\n");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      result.out,
      "ok\nok\nok\nok\ntrue\ntrue\ntrue\ntrue\nfalse\nfalse\n200\nok\nfalse\nok\ntrue\nfalse\n"
      "true\n{\"k\":\"v w\"}\n");
  EXPECT_NE(result.err.find("] 200/200"), std::string::npos) << "the progress bar ends full";
  ASSERT_EQ(server_.requests().size(), 1u);
  const auto request = server_.request(0);
  EXPECT_EQ(request.path() + " " + request.header("X-Shell").value_or(""), "/Shop on");
  const QVValue payload = QVValue::parse(request.body, nullptr, false);
  ASSERT_TRUE(payload.is_object() && payload["sessions"].size() == 2) << request.body;
  EXPECT_EQ(payload["sessions"][0]["id"], "S1");
  EXPECT_EQ(payload["sessions"][0]["messages"],
            QVValue::parse(R"([{"offset": 7, "screen": "Home"}, {"offset": 0}])"));
  // Four threads posted every index exactly once.
  std::set<uint64_t> indexes;
  for (const auto& message : payload["sessions"][1]["messages"])
    indexes.insert(message["n"].get<uint64_t>());
  EXPECT_EQ(indexes.size(), 200u);
  EXPECT_EQ(payload["sessions"][1]["messages"].size(), 200u);
}

TEST_F(QVShellTest, ExpiredBackgroundTimeTellsTheModulesThatAskedAndSendsTheQueues) {
  std::mutex mutex;
  std::string lines = "\n";  // each line ends in a newline
  QVLog::setSink([&](const std::string& line) {
    std::lock_guard lock(mutex);
    lines += line + "\n";
  });
  auto result = run(host({"Keeper terminate-hook=true", "Plain"}) +
                    "post Keeper offset=1\npost Plain offset=2\n"
                    "lifecycle background\nlifecycle expire-background\n");
  QVLog::setSink(nullptr);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(server_.waitForRequests(2));
  std::lock_guard lock(mutex);
  const std::string told = "\nKeeper: application will terminate\n";
  ASSERT_NE(lines.find(told), std::string::npos) << lines;
  EXPECT_EQ(lines.find(told, lines.find(told) + 1), std::string::npos) << "told once";
  EXPECT_EQ(lines.find("\nPlain"), std::string::npos) << lines;
}

TEST_F(QVShellTest, LogLinesGoToTheDeveloperLogTool) {
  auto clock = std::make_shared<QVFakeClock>();
  auto discovery = std::make_shared<test::QVFakeServiceDiscovery>();
  QVRunLoop::main().setClock(clock);
  QVServiceDiscovery::setShared(discovery);
  EXPECT_EQ(answer("log \"hello  tool\" n=1"), "ok");
  QVRunLoop::main().runUntilIdle();
  ASSERT_EQ(discovery->browsers.size(), 1u);
  auto service = discovery->browsers[0]->find("tool");
  QVRunLoop::main().runUntilIdle();
  service->answer({test::ipv4Address(127, 0, 0, 1)});
  QVRunLoop::main().runUntilIdle();
  clock->advance(std::chrono::seconds(7));
  QVRunLoop::main().runUntilIdle();
  ASSERT_NE(service->output, nullptr);
  const std::string& written = service->output->written;
  EXPECT_EQ(written.substr(written.find('\n') + 1), "hello  tool n=1\n");
  QVServiceDiscovery::setShared(nullptr);
}

using QVShellDeathTest = QVShellTest;

TEST_F(QVShellDeathTest, ACrashTellsTheModuleAndSendsTheQueueBeforeTheProcessEnds) {
  const std::string script = host({"Crasher handles-exceptions=true"}) +
                             "post Crasher offset=5\ncrash it broke\necho never\n";
  EXPECT_EXIT(run(script), ::testing::KilledBySignal(SIGABRT),
              "Crasher: uncaught exception: it broke");
  ASSERT_TRUE(server_.waitForRequests(1));
  const QVValue payload = QVValue::parse(server_.request(0).body, nullptr, false);
  EXPECT_EQ(payload["sessions"][0]["messages"][0]["offset"], 5) << server_.request(0).body;
}

}  // namespace
}  // namespace qv::shell
