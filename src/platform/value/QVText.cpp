#include "platform/value/QVText.h"

#include <algorithm>

namespace qv::QVText {

namespace {

char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return lowerAscii(x) == lowerAscii(y);
         });
}

std::string_view trimmed(std::string_view text, std::string_view blanks) {
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string_view trimmedRight(std::string_view text, std::string_view blanks) {
  const size_t last = text.find_last_not_of(blanks);
  return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

}  // namespace qv::QVText
