#pragma once

#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// Names of locales, from the Unicode locale data (ICU).
class QV_EXPORT QVLocale {
 public:
  // The display name of the locale with the given identifier ("fr-CA" or
  // "fr_CA"), written in that same locale: "français (Canada)". Empty when
  // the identifier is empty or not well formed.
  static std::string displayNameOfIdentifierInItself(const std::string& identifier);
};

}  // namespace qv
