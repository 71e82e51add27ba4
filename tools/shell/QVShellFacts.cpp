#include "QVShellFacts.h"

#include <charconv>
#include <functional>
#include <map>
#include <optional>
#include <utility>

#include "QVShellArguments.h"
#include "qvcore/core/QVCore.h"

namespace qv::shell {
namespace {

// One line for each kind of answer the fact operations give.
std::string text(int64_t value) { return std::to_string(value); }
std::string text(uint64_t value) { return std::to_string(value); }
std::string text(bool value) { return boolText(value); }
std::string text(const std::string& value) { return value; }
std::string text(const std::optional<std::string>& value) { return value.value_or("none"); }

// The shortest form that reads back as the same value: a battery level of
// 0.3f prints as 0.3, a whole screen size without a fraction.
template <typename T>
std::string shortest(T value) {
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, end) : "none";
}
std::string text(float value) { return shortest(value); }
std::string text(const std::pair<double, double>& size) {
  return "[" + shortest(size.first) + "," + shortest(size.second) + "]";
}

using Fact = std::function<std::string(const QVCore&)>;

// The script's name is the operation's own, so one macro writes both and a
// name cannot drift from the operation it asks.
#define QV_SHELL_FACT(operation)                                          \
  {                                                                       \
#operation, [](const QVCore& core) { return text(core.operation()); } \
  }

const std::map<std::string, Fact>& facts() {
  static const std::map<std::string, Fact> table = {
      QV_SHELL_FACT(deviceTotalStorageCapacity),
      QV_SHELL_FACT(deviceTotalStorageFreeCapacity),
      QV_SHELL_FACT(deviceTotalMemory),
      QV_SHELL_FACT(deviceUserMemory),
      QV_SHELL_FACT(currentNetworkStatus),
      QV_SHELL_FACT(currentNetworkReachabilityName),
      QV_SHELL_FACT(currentConnectionType),
      QV_SHELL_FACT(networkCarrierName),
      QV_SHELL_FACT(networkWiFiIPAddress),
      QV_SHELL_FACT(networkIPAddress),
      QV_SHELL_FACT(appVersion),
      QV_SHELL_FACT(appVersionMajorMinor),
      QV_SHELL_FACT(appName),
      QV_SHELL_FACT(deviceID),
      QV_SHELL_FACT(currentDeviceOrientation),
      QV_SHELL_FACT(currentDeviceOrientationInDegrees),
      QV_SHELL_FACT(currentUIOrientation),
      QV_SHELL_FACT(currentUIOrientationInDegrees),
      QV_SHELL_FACT(currentOrientationName),
      QV_SHELL_FACT(currentScreenDimensions),
      QV_SHELL_FACT(getCurrentBatteryLevel),
      QV_SHELL_FACT(setUserAgentFromBrowser),
      QV_SHELL_FACT(getUserAgentFromBrowser),
      QV_SHELL_FACT(getQVAdvertisingId),
  };
  return table;
}

#undef QV_SHELL_FACT

constexpr char kSetAdvertisingId[] = "setQVAdvertisingId";

}  // namespace

std::string QVShellFacts::answer(const QVShellLine& line) {
  expectArguments(line, 1, 2);
  const std::string& name = line.positional()[0].value;
  const auto core = QVCore::sharedInstance();
  if (name == kSetAdvertisingId) {
    if (line.positional().size() < 2) return text(core->setQVAdvertisingId(std::nullopt));
    return text(core->setQVAdvertisingId(line.positional()[1].value));
  }
  const auto found = facts().find(name);
  if (found == facts().end()) throw QVShellError("fact: unknown fact " + name);
  if (line.positional().size() > 1) throw QVShellError("fact: " + name + " takes no argument");
  return found->second(*core);
}

std::vector<std::string> QVShellFacts::names() {
  std::vector<std::string> names;
  for (const auto& entry : facts()) names.push_back(entry.first);
  names.push_back(kSetAdvertisingId);
  return names;
}

}  // namespace qv::shell
