#pragma once

#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVRect.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The device and screen as one session of a payload describes them. Nothing
// is stored: every value is read at the moment the record is serialised.
class QV_EXPORT QVClientEnvironment {
 public:
  // "osType", "osVersion", the screen in pixels and points, "orientation",
  // "pixelDensity" and the nested "mobileEnvironment". Screen figures are
  // single-precision numbers.
  QVValue jsonDictionary() const;
  std::string toJson() const;

  std::string osType() const;
  std::string osVersion() const;
  // Points to pixels of the main screen; 1 when there is no main screen.
  double pixelDensity() const;
  // The main screen's bounds in points; all zero when there is none.
  QVRect screenResolution() const;
};

}  // namespace qv
