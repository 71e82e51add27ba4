#include "qvcore/platform/QVLocale.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>

namespace qv {

std::string QVLocale::displayNameOfIdentifierInItself(const std::string& identifier) {
  if (identifier.empty()) return "";
  std::string tag = identifier;
  std::replace(tag.begin(), tag.end(), '_', '-');
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale locale = icu::Locale::forLanguageTag(tag, status);
  if (U_FAILURE(status) || locale.isBogus()) return "";
  icu::UnicodeString name;
  locale.getDisplayName(locale, name);
  std::string text;
  name.toUTF8String(text);
  return text;
}

}  // namespace qv
