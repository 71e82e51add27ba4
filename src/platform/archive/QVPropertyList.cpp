#include "qvcore/platform/QVPropertyList.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <unordered_map>

#include "platform/archive/QVPlistNode.h"
#include "platform/archive/QVPlistShape.h"
#include "platform/host/QVSwallowed.h"
#include "platform/value/QVUtf8.h"
#include "qvcore/platform/QVFileSystem.h"

namespace qv {

namespace {

// A binary document may share objects; libplist copies each reference, so
// the expansion is bounded separately from the file size.
constexpr std::size_t kMaxNodes = std::size_t{1} << 20;
// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr int64_t kPlistEpoch = 978307200;

using IterPtr = std::unique_ptr<void, decltype(&std::free)>;

std::string base64(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t chunk = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) chunk |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) chunk |= static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[(chunk >> 18) & 63];
    out += kAlphabet[(chunk >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(chunk >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[chunk & 63] : '=';
  }
  return out;
}

std::string isoDate(int32_t sec, int32_t usec) {
  int64_t seconds = kPlistEpoch + sec;
  int64_t micros = usec;
  seconds += micros / 1000000;
  micros %= 1000000;
  if (micros < 0) micros += 1000000, seconds -= 1;
  const auto t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (!gmtime_r(&t, &tm)) return "";
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  std::string out = text;
  if (micros != 0) {
    std::snprintf(text, sizeof text, ".%06lld", static_cast<long long>(micros));
    out += text;
  }
  return out + "Z";
}

std::optional<QVValue> toValue(plist_t node, int depth);

// Keys are gathered first and stored once each: the ordered dictionary looks
// keys up by a linear scan, which a dictionary of many keys would make
// quadratic. A repeated key keeps its first place and its last value.
std::optional<QVValue> dictToValue(plist_t node, int depth) {
  QVValue dict = QVValue::object();
  auto& entries = static_cast<QVValue::object_t::Container&>(dict.get_ref<QVValue::object_t&>());
  std::unordered_map<std::string, std::size_t> position;
  plist_dict_iter rawIter = nullptr;
  plist_dict_new_iter(node, &rawIter);
  IterPtr iter(rawIter, &std::free);
  for (;;) {
    char* rawKey = nullptr;
    plist_t child = nullptr;
    plist_dict_next_item(node, rawIter, &rawKey, &child);
    QVPlistBuffer key(rawKey);
    if (!key) break;
    // Text that JSON cannot carry would make every later serialisation fail,
    // so a property list holding such text counts as unreadable.
    if (!isPlistSafeUtf8(key.get())) return std::nullopt;
    std::optional<QVValue> value = toValue(child, depth + 1);
    if (!value) return std::nullopt;
    auto [it, added] = position.emplace(key.get(), entries.size());
    if (added) {
      entries.emplace_back(key.get(), std::move(*value));
    } else {
      entries[it->second].second = std::move(*value);
    }
  }
  return dict;
}

std::optional<QVValue> arrayToValue(plist_t node, int depth) {
  QVValue array = QVValue::array();
  const uint32_t count = plist_array_get_size(node);
  for (uint32_t i = 0; i < count; ++i) {
    std::optional<QVValue> value = toValue(plist_array_get_item(node, i), depth + 1);
    if (!value) return std::nullopt;
    array.push_back(std::move(*value));
  }
  return array;
}

// The pointer getter, because libplist asserts when a string holds a NUL;
// such text is refused below anyway.
std::optional<QVValue> stringToValue(plist_t node) {
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (!text) return std::nullopt;
  const std::string_view view(text, length);
  if (!isPlistSafeUtf8(view)) return std::nullopt;
  return QVValue(std::string(view));
}

std::optional<QVValue> scalarToValue(plist_t node, plist_type type) {
  switch (type) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return QVValue(b != 0);
    }
    case PLIST_UINT: {
      uint64_t bits = 0;
      plist_get_uint_val(node, &bits);
      return QVValue(static_cast<int64_t>(bits));  // Signed 64-bit, see the header.
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return QVValue(d);
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return QVValue(isoDate(sec, usec));
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return QVValue(base64(std::string_view(bytes ? bytes : "", bytes ? length : 0)));
    }
    case PLIST_UID: {
      uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      return QVValue(uid);
    }
    default:
      return std::nullopt;
  }
}

std::optional<QVValue> toValue(plist_t node, int depth) {
  if (!node || depth > QVPropertyList::kMaxNestingDepth) return std::nullopt;
  const plist_type type = plist_get_node_type(node);
  switch (type) {
    case PLIST_DICT:
      return dictToValue(node, depth);
    case PLIST_ARRAY:
      return arrayToValue(node, depth);
    case PLIST_STRING:
      return stringToValue(node);
    default:
      return scalarToValue(node, type);
  }
}

QVPlistNode toNode(const QVValue& value, int depth);

QVPlistNode dictToNode(const QVValue& value, int depth) {
  QVPlistNode dict(plist_new_dict());
  for (auto it = value.begin(); it != value.end(); ++it) {
    QVPlistNode child = toNode(it.value(), depth + 1);
    if (!child) return nullptr;
    plist_dict_set_item(dict.get(), it.key().c_str(), child.release());
  }
  return dict;
}

QVPlistNode arrayToNode(const QVValue& value, int depth) {
  QVPlistNode array(plist_new_array());
  for (const QVValue& element : value) {
    QVPlistNode child = toNode(element, depth + 1);
    if (!child) return nullptr;
    plist_array_append_item(array.get(), child.release());
  }
  return array;
}

QVPlistNode toNode(const QVValue& value, int depth) {
  if (depth > QVPropertyList::kMaxNestingDepth) return nullptr;
  if (value.is_object()) return dictToNode(value, depth);
  if (value.is_array()) return arrayToNode(value, depth);
  if (value.is_string())
    return QVPlistNode(plist_new_string(value.get_ref<const std::string&>().c_str()));
  if (value.is_boolean()) return QVPlistNode(plist_new_bool(value.get<bool>()));
  if (value.is_number_unsigned()) return QVPlistNode(plist_new_uint(value.get<uint64_t>()));
  if (value.is_number_integer()) {
    return QVPlistNode(plist_new_uint(static_cast<uint64_t>(value.get<int64_t>())));
  }
  if (value.is_number_float()) return QVPlistNode(plist_new_real(value.get<double>()));
  return nullptr;
}

}  // namespace

std::optional<QVValue> QVPropertyList::propertyListWithContentsOfFile(const std::string& path) {
  std::optional<std::string> bytes = QVFileSystem::contentsAtPath(path, kMaxFileBytes);
  if (!bytes) return std::nullopt;
  return propertyListWithData(*bytes);
}

std::optional<QVValue> QVPropertyList::propertyListWithData(std::string_view bytes) {
  try {
    if (bytes.empty() || bytes.size() > kMaxFileBytes) return std::nullopt;
    if (!QVPlistShape::isWithinLimits(bytes, kMaxNestingDepth, kMaxNodes)) return std::nullopt;
    const auto length = static_cast<uint32_t>(bytes.size());
    plist_t raw = nullptr;
    if (plist_is_binary(bytes.data(), length)) {
      plist_from_bin(bytes.data(), length, &raw);
    } else {
      plist_from_xml(bytes.data(), length, &raw);
    }
    QVPlistNode root(raw);
    return toValue(root.get(), 0);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return std::nullopt;  // Out of memory on the way.
  }
}

std::optional<QVValue> QVPropertyList::dictionaryWithContentsOfFile(const std::string& path) {
  std::optional<QVValue> value = propertyListWithContentsOfFile(path);
  if (!value || !value->is_object()) return std::nullopt;
  return value;
}

std::optional<QVValue> QVPropertyList::dictionaryWithData(std::string_view bytes) {
  std::optional<QVValue> value = propertyListWithData(bytes);
  if (!value || !value->is_object()) return std::nullopt;
  return value;
}

std::optional<std::string> QVPropertyList::dataWithDictionary(const QVValue& dict, Format format) {
  try {
    if (!dict.is_object()) return std::nullopt;
    QVPlistNode root = toNode(dict, 0);
    if (!root) return std::nullopt;
    char* raw = nullptr;
    uint32_t length = 0;
    if (format == Format::kBinary) {
      plist_to_bin(root.get(), &raw, &length);
    } else {
      plist_to_xml(root.get(), &raw, &length);
    }
    QVPlistBuffer out(raw);
    if (!out) return std::nullopt;
    return std::string(out.get(), length);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return std::nullopt;
  }
}

bool QVPropertyList::writeDictionaryToFile(const QVValue& dict, const std::string& path,
                                           Format format) {
  std::optional<std::string> bytes = dataWithDictionary(dict, format);
  return bytes && QVFileSystem::writeAtomically(path, *bytes);
}

}  // namespace qv
