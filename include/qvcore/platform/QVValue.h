#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "qvcore/QVExport.h"

namespace qv {

// The dynamic value of the system: dictionaries, arrays, strings, numbers,
// booleans and JSON null. Dictionaries keep their insertion order, so JSON
// text lists keys in the order in which they were set.
using QVValue = nlohmann::ordered_json;

// A dictionary that several owners share and change.
using QVDictionaryRef = std::shared_ptr<QVValue>;

// Helpers for the number and dictionary notions of the system. "A number"
// includes booleans; a dictionary's value of JSON null counts as absent where
// a reader says so.
namespace QVValues {

QV_EXPORT bool isNumber(const QVValue& v);
QV_EXPORT bool isString(const QVValue& v);
QV_EXPORT bool isDictionary(const QVValue& v);

// The value readers answer for numbers and strings as the platform's number
// and string classes do; anything else reads as false or 0. Readers that
// must refuse a string (the typed configuration accessors) test isNumber
// first.
//
// Boolean value: a number is true when non-zero. A string skips leading
// blanks, a sign and zeros, then is true at "Y", "y", "T", "t" or a digit 1
// to 9 ("yes", "true", " +01" are true; "0", "no", "false", "" are false).
QV_EXPORT bool boolValue(const QVValue& v);
// Integer value: a number truncated toward zero for floating values; a
// string's leading blanks, optional sign and leading decimal digits ("3abc"
// is 3, "abc" is 0). Both saturate at the ends of the range.
QV_EXPORT int64_t integerValue(const QVValue& v);
// Unsigned value; negative values wrap as a C cast would.
QV_EXPORT uint64_t unsignedValue(const QVValue& v);
// Double value; a string's leading decimal number after blanks and a sign
// ("2.5s" is 2.5), else 0.
QV_EXPORT double doubleValue(const QVValue& v);

// The value stored under key, or none when the key is missing or the receiver
// is not a dictionary. A stored JSON null is returned as it is.
QV_EXPORT std::optional<QVValue> objectForKey(const QVValue& dict, std::string_view key);

// Stores value under key; an absent value removes the key instead.
QV_EXPORT void setValueForKey(QVValue& dict, const std::string& key, std::optional<QVValue> value);

// Copies every entry of from into to, replacing same-named keys. Either side
// that is not a dictionary leaves to unchanged.
QV_EXPORT void addEntriesFromDictionary(QVValue& to, const QVValue& from);

}  // namespace QVValues
}  // namespace qv
