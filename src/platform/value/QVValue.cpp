#include "qvcore/platform/QVValue.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <unordered_map>

namespace qv::QVValues {

namespace {

// Configuration written by hand often holds numbers as text, so a string
// reads as the platform's string classes read one, never by throwing.
std::size_t skipSpace(std::string_view text, std::size_t i = 0) {
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  return i;
}

// Blanks, a sign and zeros skipped, then "Y", "y", "T", "t" or a digit 1 to
// 9 means true; trailing characters are ignored.
bool stringBoolValue(std::string_view text) {
  std::size_t i = skipSpace(text);
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) return false;
  const char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// Blanks, an optional sign, then the leading decimal digits, saturated at
// the ends of the range; no digits is 0 ("3abc" is 3, "abc" is 0).
int64_t stringIntegerValue(std::string_view text) {
  std::size_t i = skipSpace(text);
  const bool negative = i < text.size() && text[i] == '-';
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const int digit = text[i] - '0';
    if (value > (std::numeric_limits<int64_t>::max() - digit) / 10) {
      return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    value = value * 10 + digit;
  }
  return negative ? -value : value;
}

// Blanks, an optional sign, then a decimal number with optional fraction
// and exponent; anything else is 0. "inf" and "nan" are not numbers here.
double stringDoubleValue(std::string_view text) {
  std::size_t i = skipSpace(text);
  const bool negative = i < text.size() && text[i] == '-';
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  if (i == text.size() || !(std::isdigit(static_cast<unsigned char>(text[i])) || text[i] == '.')) {
    return 0.0;
  }
  double value = 0.0;
  const auto [end, error] = std::from_chars(text.data() + i, text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range) {
    // from_chars leaves value alone: too small reads as 0, too large as
    // infinity, as the platform's parse answers.
    const std::string_view number(text.data() + i, static_cast<std::size_t>(end - text.data()) - i);
    const std::size_t e = number.find_first_of("eE");
    const bool tiny = e != std::string_view::npos && e + 1 < number.size() && number[e + 1] == '-';
    value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
  } else if (error != std::errc()) {
    return 0.0;
  }
  return negative ? -value : value;
}

}  // namespace

bool isNumber(const QVValue& v) { return v.is_number() || v.is_boolean(); }

bool isString(const QVValue& v) { return v.is_string(); }

bool isDictionary(const QVValue& v) { return v.is_object(); }

bool boolValue(const QVValue& v) {
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_integer()) return v.get<int64_t>() != 0;
  if (v.is_number_unsigned()) return v.get<uint64_t>() != 0;
  if (v.is_number_float()) return v.get<double>() != 0.0;
  if (v.is_string()) return stringBoolValue(v.get_ref<const std::string&>());
  return false;
}

int64_t integerValue(const QVValue& v) {
  if (v.is_boolean()) return v.get<bool>() ? 1 : 0;
  if (v.is_number_unsigned()) return static_cast<int64_t>(v.get<uint64_t>());
  if (v.is_number_integer()) return v.get<int64_t>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
    if (d <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(d);
  }
  if (v.is_string()) return stringIntegerValue(v.get_ref<const std::string&>());
  return 0;
}

uint64_t unsignedValue(const QVValue& v) {
  if (v.is_number_unsigned()) return v.get<uint64_t>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (d >= 0.0 && d < 18446744073709551616.0) return static_cast<uint64_t>(d);
  }
  return static_cast<uint64_t>(integerValue(v));
}

double doubleValue(const QVValue& v) {
  if (v.is_boolean()) return v.get<bool>() ? 1.0 : 0.0;
  if (v.is_number()) return v.get<double>();
  if (v.is_string()) return stringDoubleValue(v.get_ref<const std::string&>());
  return 0.0;
}

std::optional<QVValue> objectForKey(const QVValue& dict, std::string_view key) {
  if (!dict.is_object()) return std::nullopt;
  auto it = dict.find(key);
  if (it == dict.end()) return std::nullopt;
  return *it;
}

void setValueForKey(QVValue& dict, const std::string& key, std::optional<QVValue> value) {
  if (!dict.is_object()) {
    if (!dict.is_null()) return;
    dict = QVValue::object();
  }
  if (value) {
    dict[key] = std::move(*value);
  } else {
    dict.erase(key);
  }
}

void addEntriesFromDictionary(QVValue& to, const QVValue& from) {
  if (!from.is_object()) return;
  if (to.is_null()) to = QVValue::object();
  if (!to.is_object() || from.empty()) return;
  // The ordered dictionary finds a key by a linear scan, so the entries of
  // to are indexed once: a large merge stays linear.
  auto& entries = static_cast<QVValue::object_t::Container&>(to.get_ref<QVValue::object_t&>());
  std::unordered_map<std::string, std::size_t> position;
  position.reserve(entries.size() + from.size());
  for (std::size_t i = 0; i < entries.size(); ++i) position.emplace(entries[i].first, i);
  for (auto it = from.begin(); it != from.end(); ++it) {
    const auto [found, added] = position.emplace(it.key(), entries.size());
    if (added) {
      entries.emplace_back(it.key(), it.value());
    } else {
      entries[found->second].second = it.value();
    }
  }
}

}  // namespace qv::QVValues
