#include "qvcore/platform/QVKeyedArchiver.h"

#include "platform/archive/QVPlistNode.h"
#include "platform/value/QVUtf8.h"
#include "qvcore/platform/QVArchiveException.h"

namespace qv {

namespace {

// The writer would alter such text silently, so it is refused instead.
void requireWritableText(const std::string& s, const char* what) {
  if (!isPlistSafeUtf8(s)) throw QVArchiveException(std::string(what) + " is not NUL-free UTF-8");
}

}  // namespace

struct QVKeyedArchiver::Rep {
  QVPlistNode root{plist_new_dict()};

  void setItem(const std::string& key, QVPlistNode item) {
    requireWritableText(key, "archive key");
    plist_dict_set_item(root.get(), key.c_str(), item.release());
  }
};

QVKeyedArchiver::QVKeyedArchiver() : rep_(std::make_unique<Rep>()) {}

QVKeyedArchiver::~QVKeyedArchiver() = default;

void QVKeyedArchiver::encodeInt64ForKey(int64_t value, const std::string& key) {
  rep_->setItem(key, QVPlistNode(plist_new_uint(static_cast<uint64_t>(value))));
}

void QVKeyedArchiver::encodeUInt64ForKey(uint64_t value, const std::string& key) {
  rep_->setItem(key, QVPlistNode(plist_new_uint(value)));
}

void QVKeyedArchiver::encodeBoolForKey(bool value, const std::string& key) {
  rep_->setItem(key, QVPlistNode(plist_new_bool(value ? 1 : 0)));
}

void QVKeyedArchiver::encodeDoubleForKey(double value, const std::string& key) {
  rep_->setItem(key, QVPlistNode(plist_new_real(value)));
}

void QVKeyedArchiver::encodeObjectForKey(const std::optional<std::string>& value,
                                         const std::string& key) {
  if (!value) return;
  requireWritableText(*value, "archived string");
  rep_->setItem(key, QVPlistNode(plist_new_string(value->c_str())));
}

std::vector<uint8_t> QVKeyedArchiver::archivedData() const {
  char* out = nullptr;
  uint32_t length = 0;
  plist_to_bin(rep_->root.get(), &out, &length);
  QVPlistBuffer buffer(out);
  if (!buffer) return {};
  const auto* bytes = reinterpret_cast<const uint8_t*>(buffer.get());
  return std::vector<uint8_t>(bytes, bytes + length);
}

std::vector<uint8_t> QVKeyedArchiver::archivedDataWithRootObject(const QVCoding& root) {
  QVKeyedArchiver archiver;
  root.encodeWithCoder(archiver);
  return archiver.archivedData();
}

}  // namespace qv
