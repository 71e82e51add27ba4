#pragma once

#include <exception>
#include <string>

#include "qvcore/platform/QVValue.h"

namespace qv {

// Appends JSON text to a string the way the payloads carry it, in one pass
// and without building a second tree:
// - text that is not UTF-8 has each bad sequence replaced by U+FFFD, so one
//   stray byte from a module costs that character, not the payload;
// - a floating-point number with a whole value is written as an integer
//   ("2", not "2.0"; -0.0 as "0"), since servers reading integer fields
//   refuse a fraction; other values in the shortest text that reads back
//   exactly;
// - what JSON cannot carry (NaN, infinity, binary data) is written as null
//   under kNull, and under kFail makes value() throw Refused, leaving the
//   text written so far for the caller to cut back.
class QVJsonWriter {
 public:
  enum class Unwritable { kFail, kNull };
  struct Refused : std::exception {};

  QVJsonWriter(std::string& out, Unwritable policy);

  void value(const QVValue& v);
  // A quoted string; a key, for example.
  void string(const std::string& text);
  // The number text described above; "null" (or Refused) when not finite.
  void number(double d);

  // The number text of d without a writer: the URL-encoded form's numbers.
  static std::string numberText(double d);

 private:
  void object(const QVValue& v);
  void array(const QVValue& v);
  void unwritable();

  std::string& out_;
  nlohmann::detail::serializer<QVValue> serializer_;
  Unwritable policy_;
};

}  // namespace qv
