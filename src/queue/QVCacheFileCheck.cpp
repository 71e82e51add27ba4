#include "queue/QVCacheFileCheck.h"

#include <exception>
#include <map>
#include <string>

#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

namespace {

// Notes the kind of each value at the top level of a dictionary, by key.
class TopLevelShape : public nlohmann::json_sax<QVValue> {
 public:
  enum Kind { kString = 1, kNumber = 2, kArray = 4 };

  bool null() override { return value(0); }
  bool boolean(bool) override { return value(0); }
  bool number_integer(number_integer_t) override { return value(kNumber); }
  bool number_unsigned(number_unsigned_t) override { return value(kNumber); }
  bool number_float(number_float_t, const string_t&) override { return value(kNumber); }
  bool string(string_t&) override { return value(kString); }
  bool binary(binary_t&) override { return value(0); }
  bool start_object(std::size_t) override { return open(0, true); }
  bool start_array(std::size_t) override { return open(kArray, false); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(string_t& name) override {
    if (depth_ == 1) key_ = name;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

  bool topIsObject() const { return topIsObject_; }
  bool has(Kind kind, const char* name) const {
    const auto found = kinds_.find(name);
    return found != kinds_.end() && found->second == kind;
  }

 private:
  bool value(int kind) {
    if (depth_ == 1) kinds_[key_] = kind;
    return depth_ > 0;  // a bare scalar is not a dictionary: stop at once
  }
  bool open(int kind, bool object) {
    if (depth_ == 0) topIsObject_ = object;
    if (depth_ == 1) kinds_[key_] = kind;
    return ++depth_ <= QVPropertyList::kMaxNestingDepth;
  }
  bool close() {
    --depth_;
    return true;
  }

  int depth_ = 0;
  bool topIsObject_ = false;
  std::string key_;
  std::map<std::string, int> kinds_;
};

}  // namespace

bool isCachedQueueText(std::string_view text, bool messageAllowed) {
  TopLevelShape shape;
  try {
    if (!QVValue::sax_parse(text, &shape) || !shape.topIsObject()) return false;
  } catch (const std::exception&) {
    return false;
  }
  const bool queue = shape.has(TopLevelShape::kString, "messageVersion") &&
                     shape.has(TopLevelShape::kNumber, "serialNumber") &&
                     shape.has(TopLevelShape::kArray, "sessions");
  return queue || (messageAllowed && shape.has(TopLevelShape::kNumber, "offset"));
}

}  // namespace qv
