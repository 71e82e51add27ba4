#include "qvcore/model/QVClientEnvironment.h"

#include <charconv>
#include <cmath>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVMobileEnvironment.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVScreen.h"

namespace qv {

namespace {

// A value narrowed to single precision and written as the shortest decimal
// that reads back as that float, so the payload says 0.1, not
// 0.10000000149011612; whole values are written without a fraction.
QVValue singlePrecision(double value) {
  const float narrowed = static_cast<float>(value);
  if (!std::isfinite(narrowed)) return QVValue(narrowed);
  if (narrowed == std::trunc(narrowed) && std::fabs(narrowed) < 9.0e15f) {
    return static_cast<int64_t>(narrowed);
  }
  char text[32];
  auto [end, error] = std::to_chars(text, text + sizeof text, narrowed);
  double shortest = narrowed;
  if (error == std::errc()) std::from_chars(text, end, shortest);
  return shortest;
}

}  // namespace

QVValue QVClientEnvironment::jsonDictionary() const {
  auto core = QVCore::sharedInstance();
  QVValue dict = QVValue::object();
  QVValues::setValueForKey(dict, "osType", osType());
  QVValues::setValueForKey(dict, "osVersion", osVersion());
  const double height = core->currentScreenDimensions().second;
  const double width = core->currentScreenDimensions().first;
  const double density = pixelDensity();
  QVValues::setValueForKey(dict, "width", singlePrecision(width * density));
  QVValues::setValueForKey(dict, "deviceWidth", singlePrecision(width));
  QVValues::setValueForKey(dict, "height", singlePrecision(height * density));
  QVValues::setValueForKey(dict, "deviceHeight", singlePrecision(height));
  QVValues::setValueForKey(dict, "orientation", core->currentDeviceOrientationInDegrees());
  QVValues::setValueForKey(dict, "pixelDensity", singlePrecision(density));
  QVValues::setValueForKey(dict, "mobileEnvironment", QVMobileEnvironment().jsonDictionary());
  return dict;
}

std::string QVClientEnvironment::toJson() const {
  return QVCoreExtensions::toJson(jsonDictionary());
}

std::string QVClientEnvironment::osType() const { return QVDevice::currentDevice().systemName(); }

std::string QVClientEnvironment::osVersion() const {
  return QVDevice::currentDevice().systemVersion();
}

double QVClientEnvironment::pixelDensity() const {
  auto screen = QVScreen::mainScreen();
  return screen ? screen->scale() : 1.0;
}

QVRect QVClientEnvironment::screenResolution() const {
  auto screen = QVScreen::mainScreen();
  return screen ? screen->bounds() : QVRect{};
}

}  // namespace qv
