#include "qvcore/platform/QVKeyedUnarchiver.h"

#include <cstddef>
#include <limits>
#include <string_view>

#include "platform/archive/QVPlistNode.h"
#include "platform/archive/QVPlistShape.h"
#include "platform/value/QVUtf8.h"
#include "qvcore/platform/QVArchiveException.h"
#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

namespace {

// An archive holds one flat dictionary, yet libplist expands every shared
// reference and recurses once a level: a few hundred damaged bytes could
// make it build 2^40 nodes. Such archives are refused before it reads them.
constexpr std::size_t kMaxNodes = std::size_t{1} << 16;

QVPlistNode parseDictionary(std::span<const uint8_t> data) {
  if (data.empty() || data.size() > std::numeric_limits<uint32_t>::max()) return nullptr;
  const std::string_view bytes(reinterpret_cast<const char*>(data.data()), data.size());
  if (!QVPlistShape::isWithinLimits(bytes, QVPropertyList::kMaxNestingDepth, kMaxNodes)) {
    return nullptr;
  }
  plist_t node = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  QVPlistNode root(node);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return nullptr;
  return root;
}

// Integers are held as the bits of a signed value, which keeps both signed
// and unsigned readings of the same archive consistent with each other.
QVValue numberValue(plist_t node, const std::string& key) {
  switch (plist_get_node_type(node)) {
    case PLIST_UINT: {
      uint64_t bits = 0;
      plist_get_uint_val(node, &bits);
      return static_cast<int64_t>(bits);
    }
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return b != 0;
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return d;
    }
    default:
      throw QVArchiveException("value for key " + key + " is not a number");
  }
}

}  // namespace

struct QVKeyedUnarchiver::Rep {
  QVPlistNode root;

  plist_t itemForKey(const std::string& key) const {
    return root ? plist_dict_get_item(root.get(), key.c_str()) : nullptr;
  }

  // A number for key, or JSON null when the key is absent.
  QVValue numberForKey(const std::string& key) const {
    plist_t node = itemForKey(key);
    return node ? numberValue(node, key) : QVValue();
  }
};

QVKeyedUnarchiver::QVKeyedUnarchiver(std::span<const uint8_t> data)
    : rep_(std::make_unique<Rep>(Rep{parseDictionary(data)})) {}

QVKeyedUnarchiver::~QVKeyedUnarchiver() = default;

bool QVKeyedUnarchiver::isValid() const { return rep_->root != nullptr; }

bool QVKeyedUnarchiver::containsValueForKey(const std::string& key) const {
  return rep_->itemForKey(key) != nullptr;
}

int64_t QVKeyedUnarchiver::decodeInt64ForKey(const std::string& key) const {
  return QVValues::integerValue(rep_->numberForKey(key));
}

uint64_t QVKeyedUnarchiver::decodeUInt64ForKey(const std::string& key) const {
  return QVValues::unsignedValue(rep_->numberForKey(key));
}

bool QVKeyedUnarchiver::decodeBoolForKey(const std::string& key) const {
  return QVValues::boolValue(rep_->numberForKey(key));
}

double QVKeyedUnarchiver::decodeDoubleForKey(const std::string& key) const {
  return QVValues::doubleValue(rep_->numberForKey(key));
}

std::optional<std::string> QVKeyedUnarchiver::decodeObjectForKey(const std::string& key) const {
  plist_t node = rep_->itemForKey(key);
  if (!node) return std::nullopt;
  if (plist_get_node_type(node) != PLIST_STRING) {
    throw QVArchiveException("value for key " + key + " is not a string");
  }
  // plist_get_string_val asserts on a NUL inside the stored text, which a
  // damaged archive can hold; the pointer form leaves the check to us.
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  const std::string_view value = text ? std::string_view(text, length) : std::string_view();
  if (!isPlistSafeUtf8(value)) {
    throw QVArchiveException("value for key " + key + " is damaged text");
  }
  return std::string(value);
}

}  // namespace qv
