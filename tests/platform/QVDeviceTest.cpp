#include "qvcore/platform/QVDevice.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {
namespace {

using Languages = std::vector<std::string>;

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
    for (int i = 0; i < 4; ++i) {
      values[i] ? ::setenv(names[i], values[i], 1) : ::unsetenv(names[i]);
    }
    EXPECT_EQ(device.preferredLanguages(), expected) << expected.front();
  }
  device.setPreferredLanguages({"ja-JP"});
  EXPECT_EQ(device.preferredLanguages(), Languages{"ja-JP"});
  device.setPreferredLanguages({});
  EXPECT_EQ(device.preferredLanguages(), Languages{"en-US"});
}

TEST(QVDeviceTest, LinuxAnswersUntilTheHostSetsItsOwn) {
  QVDevice& device = QVDevice::currentDevice();
  struct utsname u {};
  ASSERT_EQ(::uname(&u), 0);
  EXPECT_EQ(device.systemName(), u.sysname);
  EXPECT_EQ(device.systemVersion(), u.release);
  EXPECT_FALSE(device.model().empty());
  EXPECT_EQ(device.batteryLevel(), -1.0f);
  EXPECT_GT(device.userMemory(), 0u);
  EXPECT_LE(device.userMemory(), device.physicalMemory());

  device.setSystemName("iOS");
  device.setPhysicalMemory(1ull << 40);
  EXPECT_EQ(device.systemName(), "iOS");
  EXPECT_EQ(device.physicalMemory(), 1ull << 40);
  device.setSystemName("");
  device.setPhysicalMemory(0);
  EXPECT_EQ(device.systemName(), u.sysname);
  EXPECT_NE(device.physicalMemory(), 1ull << 40);
}

TEST(QVDeviceTest, OrientationEventsReachTheMainLoopOnlyWhileGenerating) {
  QVDevice& device = QVDevice::currentDevice();
  std::string seen;  // the orientation when each notification arrives
  int observer = 0;
  QVNotificationCenter::defaultCenter().addObserver(
      &observer, UIDeviceOrientationDidChangeNotification, &device,
      [&](const QVNotification&) { seen += std::to_string(device.orientation()); });
  const auto set = [&](int64_t orientation) {
    device.setOrientation(orientation);
    QVRunLoop::main().runUntilIdle();
  };
  set(1);
  device.beginGeneratingDeviceOrientationNotifications();
  device.beginGeneratingDeviceOrientationNotifications();  // begins nest
  device.setOrientation(3);
  EXPECT_EQ(seen, "") << "not before the main loop runs";
  set(3);  // a repeat is an event too
  set(7);  // not a device orientation: unknown
  device.endGeneratingDeviceOrientationNotifications();
  set(2);
  device.endGeneratingDeviceOrientationNotifications();
  device.endGeneratingDeviceOrientationNotifications();  // unmatched: ignored
  set(4);
  device.beginGeneratingDeviceOrientationNotifications();
  set(6);
  EXPECT_EQ(seen, "33026");
  QVNotificationCenter::defaultCenter().removeObserver(&observer);
}

}  // namespace
}  // namespace qv
