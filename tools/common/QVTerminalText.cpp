#include "QVTerminalText.h"

#include <cstdio>

namespace qv {

namespace {

size_t expectedLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead <= 0xdf) return 2;
  if (lead >= 0xe0 && lead <= 0xef) return 3;
  if (lead >= 0xf0 && lead <= 0xf4) return 4;
  return 0;
}

bool isContinuation(unsigned char byte) { return (byte & 0xc0) == 0x80; }

}  // namespace

size_t QVTerminalText::characterLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const size_t length = expectedLength(lead);
  if (length == 0 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!isContinuation(static_cast<unsigned char>(text[i]))) return 0;
  }
  const auto second = static_cast<unsigned char>(length > 1 ? text[1] : 0);
  // Overlong forms, UTF-16 surrogates and code points past U+10FFFF.
  if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
      (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f)) {
    return 0;
  }
  // U+0080 to U+009F: the C1 controls, such as the one-byte CSI.
  if (lead == 0xc2 && second < 0xa0) return 0;
  return length;
}

void QVTerminalText::escapeByte(std::string& out, unsigned char byte) {
  char escape[5];
  std::snprintf(escape, sizeof escape, "\\x%02x", byte);
  out += escape;
}

std::string QVTerminalText::escaped(std::string_view text, bool keepLayout) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool layout = keepLayout && (byte == '\n' || byte == '\t');
    if ((byte < 0x20 && !layout) || byte == 0x7f) {
      escapeByte(out, byte);
      ++i;
      continue;
    }
    const size_t length = characterLength(text.substr(i));
    if (length == 0) {
      escapeByte(out, byte);
      ++i;
      continue;
    }
    out.append(text.substr(i, length));
    i += length;
  }
  return out;
}

size_t QVTerminalText::incompleteTail(std::string_view text) {
  // A character is at most 4 bytes, so its start is among the last 3.
  for (size_t back = 1; back <= 3 && back <= text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if (isContinuation(byte)) continue;
    const size_t length = expectedLength(byte);
    return length > back ? back : 0;
  }
  return 0;
}

}  // namespace qv
