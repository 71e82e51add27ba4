#include "qvcore/model/QVCoreExtensions.h"

#include <cmath>
#include <exception>
#include <string>
#include <string_view>

#include "model/QVJsonWriter.h"
#include "platform/host/QVSwallowed.h"

namespace qv {

namespace {

// RFC 3986 query characters: unreserved, sub-delimiters, ":", "@", "/", "?".
bool isQueryCharacter(unsigned char c) {
  static constexpr std::string_view kPunctuation = "-._~!$&'()*+,;=:@/?";
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  return kPunctuation.find(static_cast<char>(c)) != std::string_view::npos;
}

// "&" is a query character yet would split the pair, so it is escaped too.
// Slashes stay readable only under "ul"; that exemption is deliberate.
std::string encodeString(const std::string& value, bool keepSlashes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(value.size());
  for (unsigned char c : value) {
    if (c == '&') {
      out += "%26";
    } else if (c == '/' && !keepSlashes) {
      out += "%2F";
    } else if (isQueryCharacter(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

// The JSON form, a whole value without a fraction, but with no "+" in the
// exponent, which a form reader would take for a space; the non-finite as
// a number prints itself.
std::string floatText(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
  std::string text = QVJsonWriter::numberText(d);
  std::erase(text, '+');
  return text;
}

// Nested values and null travel as their compact JSON text, escaped as a
// string of the same key is: left bare, the quotes and brackets would make
// a URL that no request can be built from. "+" is escaped as well, so that
// a reader that takes it for a space cannot break the JSON.
std::string nestedText(const std::string& key, const QVValue& value) {
  std::string json;
  QVJsonWriter(json, QVJsonWriter::Unwritable::kNull).value(value);
  std::string text = encodeString(json, key == "ul");
  for (size_t plus = text.find('+'); plus != std::string::npos; plus = text.find('+', plus)) {
    text.replace(plus, 1, "%2B");
  }
  return text;
}

std::string valueText(const std::string& key, const QVValue& value) {
  switch (value.type()) {
    case QVValue::value_t::string:
      return encodeString(value.get_ref<const std::string&>(), key == "ul");
    case QVValue::value_t::boolean:
      return value.get<bool>() ? "1" : "0";
    case QVValue::value_t::number_float:
      return floatText(value.get<double>());
    case QVValue::value_t::number_integer:
    case QVValue::value_t::number_unsigned:
      return value.dump();
    default:
      return nestedText(key, value);
  }
}

}  // namespace

std::string QVCoreExtensions::toJson(const QVValue& dict) {
  if (!dict.is_object()) return "";
  try {
    // The writer never escapes "/", so there is no "\/" to undo here.
    std::string text;
    QVJsonWriter(text, QVJsonWriter::Unwritable::kFail).value(dict);
    return text;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return "";  // Refused, or out of memory
  }
}

std::string QVCoreExtensions::urlEncodedString(const QVValue& dict) {
  if (!dict.is_object()) return "";
  std::string result;
  for (auto it = dict.begin(); it != dict.end(); ++it) {
    if (!result.empty()) result += '&';
    result += it.key();
    result += '=';
    result += valueText(it.key(), it.value());
  }
  return result;
}

}  // namespace qv
