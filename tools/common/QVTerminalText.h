#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qv {

// Text that came from the network, made safe to print on a terminal: a
// request line, a header or a log line could otherwise carry escape
// sequences that retitle the window, move the cursor or rewrite what was
// printed before. Control characters (C0, DEL and the C1 range, which some
// terminals also obey) and bytes that are not UTF-8 become \xNN; every other
// character, UTF-8 included, is printed as it is.
class QVTerminalText {
 public:
  // The text escaped; newlines and tabs stay as they are with keepLayout.
  static std::string escaped(std::string_view text, bool keepLayout = false);
  // How many bytes at the end of the text begin a UTF-8 character that is
  // not complete yet: a stream holds them back until the rest arrives.
  static size_t incompleteTail(std::string_view text);

 private:
  // The length of the UTF-8 character at the start of text, or 0 when the
  // bytes there are not one (or not all of it is there).
  static size_t characterLength(std::string_view text);
  static void escapeByte(std::string& out, unsigned char byte);
};

}  // namespace qv
