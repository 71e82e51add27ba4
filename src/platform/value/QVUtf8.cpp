#include "platform/value/QVUtf8.h"

#include <cstddef>

namespace qv {

namespace {

// Length of the sequence that starts at text[i], or 0 when it is malformed.
size_t sequenceLength(std::string_view text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) return lead == 0 ? 0 : 1;
  size_t n;
  unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    n = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    n = 3;
    if (lead == 0xE0) lo = 0xA0;
    if (lead == 0xED) hi = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    n = 4;
    if (lead == 0xF0) lo = 0x90;
    if (lead == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (i + n > text.size() || byte(i + 1) < lo || byte(i + 1) > hi) return 0;
  for (size_t k = 2; k < n; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return n;
}

}  // namespace

bool isPlistSafeUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const size_t n = sequenceLength(text, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

}  // namespace qv
