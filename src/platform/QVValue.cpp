#include "qvcore/platform/QVValue.h"

#include <cmath>
#include <limits>

namespace qv::QVValues {

bool isNumber(const QVValue& v) { return v.is_number() || v.is_boolean(); }

bool isString(const QVValue& v) { return v.is_string(); }

bool isDictionary(const QVValue& v) { return v.is_object(); }

bool boolValue(const QVValue& v) {
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_integer()) return v.get<int64_t>() != 0;
  if (v.is_number_unsigned()) return v.get<uint64_t>() != 0;
  if (v.is_number_float()) return v.get<double>() != 0.0;
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
  if (!to.is_object()) return;
  for (auto it = from.begin(); it != from.end(); ++it) to[it.key()] = it.value();
}

}  // namespace qv::QVValues
