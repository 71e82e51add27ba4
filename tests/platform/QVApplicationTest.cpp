// The host application and device: facts with Linux defaults, lifecycle and
// orientation events, background tasks, the interfaces' addresses, and what
// the platform reads from the environment.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/utsname.h>

#include <thread>

#include "config/QVConfigTestSupport.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSystemInterfaceAddressSource.h"

namespace qv {
namespace {

using Event = QVApplication::LifecycleEvent;
using Languages = std::vector<std::string>;

// The states of the other events are held by the shell's platform events.
TEST(QVApplicationLifecycleTest, EventsReachObserversOnTheMainLoopAfterTheStateMoved) {
  QVApplication& app = QVApplication::sharedApplication();
  std::string seen;  // each notification's name and the state when it arrives
  int observer = 0;
  QVNotificationCenter::defaultCenter().addObserver(&observer, "", &app, [&](const auto& n) {
    seen += n.name + ":" + std::to_string(app.applicationState().value_or(-1)) + " ";
  });
  std::thread([&] {
    app.postLifecycleEvent(Event::kDidEnterBackground);
  }).join();  // from a host thread
  EXPECT_EQ(seen, "") << "delivered only when the main loop runs";
  QVRunLoop::main().runUntilIdle();
  for (Event event : {Event::kWillTerminate, Event::kDidBecomeActive, Event::kWillTerminate}) {
    app.postLifecycleEvent(event);
    QVRunLoop::main().runUntilIdle();
  }
  EXPECT_EQ(
      seen,
      "UIApplicationDidEnterBackgroundNotification:2 UIApplicationWillTerminateNotification:2 "
      "UIApplicationDidBecomeActiveNotification:0 UIApplicationWillTerminateNotification:0 ");
  QVNotificationCenter::defaultCenter().removeObserver(&observer);
}

// Expired tasks stay listed until ended. The lifecycle manager's test holds
// a task that its handler ends and a refused one, and the remaining time the
// host reported.
TEST(QVApplicationLifecycleTest, BackgroundTasksExpireOnlyWhenTheHostSaysSoAndOnlyOnce) {
  QVApplication& app = QVApplication::sharedApplication();
  std::string expired;
  const auto begin = [&](const char* name) {
    return app.beginBackgroundTaskWithNameExpirationHandler(name, [&, name] { expired += name; });
  };
  const auto upload = begin("upload"), save = begin("save"), ended = begin("ended");
  EXPECT_TRUE(upload != kUIBackgroundTaskInvalid && upload != save);
  app.endBackgroundTask(ended);
  app.endBackgroundTask(ended);
  app.endBackgroundTask(kUIBackgroundTaskInvalid);
  QVRunLoop::main().runUntilIdle();
  app.expireBackgroundTasks();
  EXPECT_EQ(expired, "") << "never by itself, and only on the main loop";
  QVRunLoop::main().runUntilIdle();
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(expired, "uploadsave") << "each handler once";
  EXPECT_EQ(app.backgroundTaskNames(), (std::vector<std::string>{"upload", "save"}));

  auto witness = std::make_shared<int>(0);
  app.setRefusesBackgroundTasks(true);
  EXPECT_EQ(app.beginBackgroundTaskWithNameExpirationHandler("no", [witness] { ++*witness; }),
            kUIBackgroundTaskInvalid);
  EXPECT_EQ(witness.use_count(), 1) << "a refused task's handler is not kept";
  EXPECT_EQ(app.backgroundTimeRemaining(), std::numeric_limits<double>::max()) << "unreported";
  app.setBackgroundTimeRemaining(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(app.backgroundTimeRemaining(), 0.0);
  app.setBackgroundTimeRemaining(std::nullopt);
  EXPECT_EQ(app.backgroundTimeRemaining(), std::numeric_limits<double>::max());
}

// What the host sets replaces the Linux answer; an empty or zero value
// brings it back.
TEST(QVApplicationTest, HostFactsAreLinuxsUntilTheHostSetsItsOwn) {
  QVApplication& app = QVApplication::sharedApplication();
  QVDevice& device = QVDevice::currentDevice();
  app.setStatusBarOrientation(5);  // not an interface orientation
  EXPECT_EQ(app.statusBarOrientation(), 0);
  struct utsname u {};
  ASSERT_EQ(::uname(&u), 0);
  const std::string linuxAgent = app.userAgent();
  EXPECT_EQ(linuxAgent, std::string("Mozilla/5.0 (X11; ") + u.sysname + " " + u.machine +
                            ") QVCore/" + QVCore::sharedInstance()->frameworkVersion());
  EXPECT_EQ(device.systemName() + " " + device.systemVersion(),
            std::string(u.sysname) + " " + u.release);
  EXPECT_GT(device.userMemory(), 0u);
  EXPECT_LE(device.userMemory(), device.physicalMemory());

  app.setUserAgent("Mozilla/5.0 (iPhone)");
  device.setSystemName("iOS");
  device.setPhysicalMemory(1ull << 40);
  EXPECT_EQ(app.userAgent() + " " + device.systemName(), "Mozilla/5.0 (iPhone) iOS");
  app.setUserAgent("");
  device.setSystemName("");
  device.setPhysicalMemory(0);
  EXPECT_EQ(app.userAgent(), linuxAgent);
  EXPECT_EQ(device.systemName(), u.sysname);
  EXPECT_NE(device.physicalMemory(), 1ull << 40);
}

TEST(QVDeviceTest, PreferredLanguagesComeFromTheLocaleEnvironment) {
  const char* const names[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
  const std::pair<std::vector<const char*>, Languages> cases[] = {
      {{"fr_CA:fr:en_US.UTF-8", "de_DE", nullptr, nullptr}, {"fr-CA", "fr", "en-US"}},
      {{"sr_RS@latin:C:fr_ca.utf8:fr_CA", nullptr, nullptr, nullptr}, {"sr-RS", "fr-CA"}},
      {{nullptr, "de_DE.UTF-8@euro", "it_IT", "fr_FR"}, {"de-DE"}},
      {{"", "", "es_419", "fr_FR"}, {"es-419"}},
      {{":C:x:fr_CANADA", nullptr, nullptr, "pt_BR.utf8"}, {"pt-BR"}},
      {{nullptr, nullptr, nullptr, "C.UTF-8"}, {"en-US"}},
      {{"POSIX", nullptr, nullptr, nullptr}, {"en-US"}},
  };
  QVDevice& device = QVDevice::currentDevice();
  for (const auto& [values, expected] : cases) {
    for (int i = 0; i < 4; ++i) values[i] ? ::setenv(names[i], values[i], 1) : ::unsetenv(names[i]);
    EXPECT_EQ(device.preferredLanguages(), expected) << expected.front();
  }
  device.setPreferredLanguages({});
  EXPECT_EQ(device.preferredLanguages(), Languages{"en-US"});
}

// Begins nest and an unmatched end is ignored; while generating, each change
// posts one event to the main loop. What observers hear, repeats included,
// is held by the orientation manager's tests.
TEST(QVDeviceTest, OrientationEventsReachTheMainLoopOnlyWhileGenerating) {
  QVDevice& device = QVDevice::currentDevice();
  std::string generating;  // after each begin (true) or end
  for (bool begin : {true, true, false, false, false, true}) {
    if (begin) device.beginGeneratingDeviceOrientationNotifications();
    if (!begin) device.endGeneratingDeviceOrientationNotifications();
    generating += device.isGeneratingDeviceOrientationNotifications() ? "1" : "0";
  }
  EXPECT_EQ(generating, "111001");
  device.setOrientation(7);  // not a device orientation
  EXPECT_EQ(device.orientation(), 0);
  EXPECT_EQ(QVRunLoop::main().runUntilIdle(), 1u);
  device.endGeneratingDeviceOrientationNotifications();
  device.setOrientation(4);
  EXPECT_EQ(QVRunLoop::main().runUntilIdle(), 0u);
}

using Entries = std::vector<QVInterfaceAddress>;
using Texts = std::vector<std::string>;

// The IPv4 entries of the named interface, as dotted text read from the
// socket-address bytes at the system's offset ("short" for too few bytes).
Texts ipv4Of(const std::optional<Entries>& entries, const std::string& name) {
  Texts texts;
  for (const auto& entry : entries.value_or(Entries{})) {
    if (entry.name != name || entry.family != AF_INET) continue;
    char text[INET_ADDRSTRLEN] = "short";
    if (entry.address.size() == sizeof(sockaddr_in)) {
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry.address.data());
      ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    }
    texts.push_back(text);
  }
  return texts;
}

// Entries of other families carry their own socket address, or none; host
// names map onto the names the core knows.
TEST(QVInterfaceAddressSourceTest, SystemListsLoopbackWithItsRawAddressUnderTheMappedName) {
  auto entries = QVInterfaceAddressSource::shared()->interfaceAddresses();
  ASSERT_TRUE(entries);
  EXPECT_EQ(ipv4Of(entries, "lo"), Texts{"127.0.0.1"});
  for (const auto& entry : *entries) {
    if (entry.name != "lo" || entry.family == AF_INET) continue;
    EXPECT_TRUE(entry.flags & IFF_LOOPBACK);
    EXPECT_EQ(entry.address.size(), entry.family == AF_INET6 ? sizeof(sockaddr_in6) : 0u);
  }
  EXPECT_EQ(
      QVSystemInterfaceAddressSource::parseInterfaceNameMap(" wlan0 = en0,bad,=x,wwan0=pdp_ip0,"),
      (std::map<std::string, std::string>{{"wlan0", "en0"}, {"wwan0", "pdp_ip0"}}));
  QVSystemInterfaceAddressSource::setInterfaceNameMap({{"lo", "en0"}});
  entries = QVSystemInterfaceAddressSource().interfaceAddresses();
  ASSERT_TRUE(entries);
  EXPECT_TRUE(
      std::none_of(entries->begin(), entries->end(), [](auto& e) { return e.name == "lo"; }));
  EXPECT_EQ(ipv4Of(entries, "en0"), Texts{"127.0.0.1"});
}

// Read once: later changes of the environment are not seen.
TEST(QVPlatformEnvironmentTest, BundlesAndInterfaceNamesAreReadAtFirstUse) {
  test::expectInFreshProcess([] {
    test::QVTempFolder folder;
    const std::string main = folder.makeFolder("Main");
    folder.makeFolder("A/QVCoreSettings.bundle");
    ::setenv("QVCORE_MAIN_BUNDLE", main.c_str(), 1);
    ::setenv("QVCORE_BUNDLE_PATH", (folder.at("B") + "::" + folder.at("A")).c_str(), 1);
    ::setenv("QVCORE_INTERFACE_NAMES", "lo=pdp_ip0", 1);
    const bool ok =
        QVBundle::mainBundlePath() == main &&
        QVBundle::searchPaths() == std::vector<std::string>{folder.at("B"), folder.at("A")} &&
        QVBundle::coreSettingsBundlePath() == folder.at("A/QVCoreSettings.bundle") &&
        ipv4Of(QVSystemInterfaceAddressSource().interfaceAddresses(), "pdp_ip0") ==
            Texts{"127.0.0.1"};
    ::setenv("QVCORE_BUNDLE_PATH", "/elsewhere", 1);
    return ok && QVBundle::searchPaths().size() == 2;
  });
}

}  // namespace
}  // namespace qv
