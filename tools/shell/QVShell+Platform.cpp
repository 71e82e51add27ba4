// Commands through which a script plays the host: the network, lifecycle,
// orientation and screen that a phone's platform would report, and the facts
// that the core derives from them.
#include <cmath>
#include <map>

#include "QVShell.h"
#include "QVShellAddressSource.h"
#include "QVShellArguments.h"
#include "QVShellFacts.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVInterfaceAddressSource.h"
#include "qvcore/platform/QVReachabilityFlags.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVScreen.h"

namespace qv::shell {
namespace {

constexpr char kRadioPrefix[] = "CTRadioAccessTechnology";

uint32_t flagsForNetwork(const std::string& kind) {
  if (kind == "wifi") return kQVReachabilityFlagsReachable;
  if (kind == "cellular") return kQVReachabilityFlagsReachable | kQVReachabilityFlagsIsWWAN;
  if (kind == "none") return 0;
  throw QVShellError("network: expected wifi, cellular or none: " + kind);
}

// "LTE" names the platform's "CTRadioAccessTechnologyLTE"; a full name is
// taken as it is.
std::string radioTechnology(const std::string& name) {
  if (name.rfind(kRadioPrefix, 0) == 0) return name;
  return kRadioPrefix + name;
}

void reportLifecycle(const std::string& event) {
  using Event = QVApplication::LifecycleEvent;
  static const std::map<std::string, Event> events = {
      {"background", Event::kDidEnterBackground},
      {"foreground", Event::kWillEnterForeground},
      {"active", Event::kDidBecomeActive},
      {"terminate", Event::kWillTerminate},
  };
  QVApplication& application = QVApplication::sharedApplication();
  if (event == "expire-background") {
    // Time that has run out leaves none, as a phone would report it.
    application.setBackgroundTimeRemaining(0.0);
    application.expireBackgroundTasks();
    return;
  }
  const auto found = events.find(event);
  if (found == events.end()) {
    throw QVShellError(
        "lifecycle: expected background, foreground, active, terminate or expire-background: " +
        event);
  }
  // Back in front, the background limit no longer applies.
  if (found->second == Event::kWillEnterForeground || found->second == Event::kDidBecomeActive) {
    application.setBackgroundTimeRemaining(std::nullopt);
  }
  application.postLifecycleEvent(found->second);
}

double screenFigure(const std::string& text, const std::string& what) {
  const double value = parseNumber<double>(text, what);
  // The facts print the screen as JSON, which has no NaN or infinity.
  if (!std::isfinite(value)) throw QVShellError(what + ": not a finite number: " + text);
  return value;
}

// The platform posts its events as tasks on the main loop; running them now
// means the library has heard the event before the command answers.
std::string deliverEvents() {
  QVRunLoop::main().runUntilIdle();
  return "ok";
}

}  // namespace

void QVShell::addPlatformCommands() {
  addCommand("network", [this](const QVShellLine& line) {
    if (!line.positional().empty() && line.positional()[0].value == "system") {
      expectArguments(line, 1, 1);
      useSystemNetwork(true);
      return deliverEvents();
    }
    expectArguments(line, 1, 1, {"radio", "address"});
    const std::string& kind = line.positional()[0].value;
    const uint32_t flags = flagsForNetwork(kind);
    const auto radio = line.option("radio");
    addresses_->setAddress(kind == "cellular" ? "pdp_ip0" : "en0", line.option("address"));
    // The radio first: the flags' event is the one after which both are read.
    network_->setRadioAccessTechnology(radio ? std::optional(radioTechnology(*radio))
                                             : std::nullopt);
    network_->setFlags(flags);
    useSystemNetwork(false);
    return deliverEvents();
  });
  addCommand("lifecycle", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    reportLifecycle(line.positional()[0].value);
    return deliverEvents();
  });
  addCommand("orientation", [](const QVShellLine& line) {
    expectArguments(line, 1, 1, {"ui"});
    const auto device = parseNumber<int64_t>(line.positional()[0].value, "orientation");
    // The interface first, as the device's event is what makes the core read
    // both.
    if (auto ui = numberOption<int64_t>(line, "ui")) {
      QVApplication::sharedApplication().setStatusBarOrientation(*ui);
    }
    QVDevice::currentDevice().setOrientation(device);
    return deliverEvents();
  });
  addCommand("screen", [](const QVShellLine& line) {
    expectArguments(line, 2, 2, {"scale"});
    const auto scale = line.option("scale");
    QVScreen::setMainScreen(screenFigure(line.positional()[0].value, "width"),
                            screenFigure(line.positional()[1].value, "height"),
                            scale ? screenFigure(*scale, "scale") : 1.0);
    return std::string("ok");
  });
  addCommand("fact", [](const QVShellLine& line) { return QVShellFacts::answer(line); });
}

// The core's monitor was made by the source it replaces: while the core
// monitors, a new monitor from the new source takes its place, and the
// network is read at once rather than a second later. Asking for the
// system's network again reads it again, as its changes arrive only while
// the main loop runs.
void QVShell::useSystemNetwork(bool system) {
  const bool switched = system != systemNetwork_;
  if (switched) {
    systemNetwork_ = system;
    QVReachabilitySource::setShared(system ? nullptr : network_);
    QVInterfaceAddressSource::setShared(system ? nullptr : addresses_);
  }
  const auto manager = QVNetworkManager::sharedInstance();
  if (!manager->networkMonitor() || !(switched || system)) return;
  if (switched) {
    manager->stopNetworkMonitoring();
    manager->startNetworkMonitoring();
  }
  manager->reachabilityChanged(nullptr);
}

}  // namespace qv::shell
