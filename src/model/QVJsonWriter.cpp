#include "model/QVJsonWriter.h"

#include <charconv>
#include <cmath>
#include <string_view>

namespace qv {

namespace {

// Every whole double below 2^63 in magnitude is an int64_t exactly.
constexpr double kIntegerLimit = 9223372036854775808.0;

// Printable ASCII with nothing to escape: most keys and values of a payload,
// copied without the writer's byte-by-byte UTF-8 check.
bool isPlainText(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\') return false;
  }
  return true;
}

template <typename Integer>
void appendInteger(std::string& out, Integer value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

bool isWhole(double d) { return std::trunc(d) == d && std::fabs(d) < kIntegerLimit; }

}  // namespace

QVJsonWriter::QVJsonWriter(std::string& out, Unwritable policy)
    : out_(out),
      serializer_(nlohmann::detail::output_adapter<char, std::string>(out), ' ',
                  QVValue::error_handler_t::replace),
      policy_(policy) {}

void QVJsonWriter::value(const QVValue& v) {
  switch (v.type()) {
    case QVValue::value_t::object:
      return object(v);
    case QVValue::value_t::array:
      return array(v);
    case QVValue::value_t::string:
      if (isPlainText(v.get_ref<const std::string&>())) {
        out_ += '"';
        out_ += v.get_ref<const std::string&>();
        out_ += '"';
      } else {
        serializer_.dump(v, false, false, 0);
      }
      return;
    case QVValue::value_t::number_integer:
      return appendInteger(out_, v.get_ref<const QVValue::number_integer_t&>());
    case QVValue::value_t::number_unsigned:
      return appendInteger(out_, v.get_ref<const QVValue::number_unsigned_t&>());
    case QVValue::value_t::number_float:
      return number(v.get_ref<const QVValue::number_float_t&>());
    case QVValue::value_t::boolean:
      out_ += v.get_ref<const QVValue::boolean_t&>() ? "true" : "false";
      return;
    case QVValue::value_t::null:
      out_ += "null";
      return;
    default:  // binary data, or a discarded value
      return unwritable();
  }
}

void QVJsonWriter::string(const std::string& text) {
  if (isPlainText(text)) {
    out_ += '"';
    out_ += text;
    out_ += '"';
  } else {
    serializer_.dump(QVValue(text), false, false, 0);
  }
}

void QVJsonWriter::number(double d) {
  if (!std::isfinite(d)) return unwritable();
  if (isWhole(d)) return appendInteger(out_, static_cast<int64_t>(d));  // -0.0 too
  serializer_.dump(QVValue(d), false, false, 0);
}

std::string QVJsonWriter::numberText(double d) {
  std::string text;
  QVJsonWriter(text, Unwritable::kNull).number(d);
  return text;
}

void QVJsonWriter::object(const QVValue& v) {
  out_ += '{';
  bool first = true;
  for (const auto& [key, member] : v.get_ref<const QVValue::object_t&>()) {
    if (!first) out_ += ',';
    first = false;
    string(key);
    out_ += ':';
    value(member);
  }
  out_ += '}';
}

void QVJsonWriter::array(const QVValue& v) {
  out_ += '[';
  bool first = true;
  for (const QVValue& item : v.get_ref<const QVValue::array_t&>()) {
    if (!first) out_ += ',';
    first = false;
    value(item);
  }
  out_ += ']';
}

void QVJsonWriter::unwritable() {
  if (policy_ == Unwritable::kFail) throw Refused{};
  out_ += "null";
}

}  // namespace qv
