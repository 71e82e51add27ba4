#pragma once

#include <memory>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVRect.h"

namespace qv {

// A display, as its bounds in points and the number of pixels per point. A
// screen object never changes: when the host reports new bounds, say after a
// rotation, a new main screen takes the old one's place, so a caller that
// reads bounds and scale from one object gets a consistent pair.
class QV_EXPORT QVScreen {
 public:
  QVScreen(QVRect bounds, double scale) : bounds_(bounds), scale_(scale) {}

  // Null when the host has said there is none. Linux alone knows no size: a
  // screen of 0 x 0 points at scale 1.0 until the host tells. Safe from any
  // thread, as are the setters.
  static std::shared_ptr<QVScreen> mainScreen();
  // Bounds at the origin with the given size in points; values as given.
  static void setMainScreen(double width, double height, double scale);
  static void removeMainScreen();

  QVRect bounds() const { return bounds_; }
  double scale() const { return scale_; }

 private:
  const QVRect bounds_;
  const double scale_;
};

}  // namespace qv
