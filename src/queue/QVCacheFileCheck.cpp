#include "queue/QVCacheFileCheck.h"

#include <exception>
#include <map>
#include <string>
#include <vector>

#include "platform/host/QVSwallowed.h"
#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

namespace {

// Notes the kind of each value at the top level of a dictionary, by key, and
// counts the entries of every session's "messages".
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
    lastKey_ = name;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

  bool topIsObject() const { return topIsObject_; }
  std::size_t messages() const { return messages_; }
  bool has(Kind kind, const char* name) const {
    const auto found = kinds_.find(name);
    return found != kinds_.end() && found->second == kind;
  }

 private:
  // What an open container is to the payload.
  enum Role : char { kOther, kSessions, kSession, kMessages };

  bool value(int kind) {
    if (depth_ == 1) kinds_[key_] = kind;
    countElement();
    return depth_ > 0;  // a bare scalar is not a dictionary: stop at once
  }
  bool open(int kind, bool object) {
    if (depth_ == 0) topIsObject_ = object;
    if (depth_ == 1) kinds_[key_] = kind;
    countElement();
    roles_.push_back(roleOfNew(object));
    return ++depth_ <= QVPropertyList::kMaxNestingDepth;
  }
  bool close() {
    --depth_;
    roles_.pop_back();
    return true;
  }
  Role roleOfNew(bool object) const {
    const Role parent = roles_.empty() ? kOther : roles_.back();
    if (depth_ == 1 && !object && key_ == "sessions") return kSessions;
    if (parent == kSessions && object) return kSession;
    if (parent == kSession && !object && lastKey_ == "messages") return kMessages;
    return kOther;
  }
  void countElement() {
    if (!roles_.empty() && roles_.back() == kMessages) ++messages_;
  }

  int depth_ = 0;
  bool topIsObject_ = false;
  std::string key_;
  std::string lastKey_;
  std::vector<Role> roles_;
  std::size_t messages_ = 0;
  std::map<std::string, int> kinds_;
};

}  // namespace

std::optional<std::size_t> cachedQueueMessageCount(std::string_view text, bool messageAllowed) {
  TopLevelShape shape;
  try {
    if (!QVValue::sax_parse(text, &shape) || !shape.topIsObject()) return std::nullopt;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return std::nullopt;
  }
  if (shape.has(TopLevelShape::kString, "messageVersion") &&
      shape.has(TopLevelShape::kNumber, "serialNumber") &&
      shape.has(TopLevelShape::kArray, "sessions")) {
    return shape.messages();
  }
  if (messageAllowed && shape.has(TopLevelShape::kNumber, "offset")) return 1;
  return std::nullopt;
}

}  // namespace qv
