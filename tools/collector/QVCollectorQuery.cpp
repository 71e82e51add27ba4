#include "QVCollectorQuery.h"

#include <cctype>
#include <set>
#include <stdexcept>

#include "QVCollectorJsonScan.h"

namespace qv::collector {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string QVCollectorQuery::percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() && text[i] == '%' ? hexValue(text[i + 1]) : -1;
    const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
    if (low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

QVCollectorQuery::Pairs QVCollectorQuery::pairs(std::string_view query) {
  Pairs result;
  while (!query.empty()) {
    const size_t end = query.find('&');
    const std::string_view pair = query.substr(0, end);
    query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
    result.emplace_back(percentDecode(pair.substr(0, equals)), percentDecode(value));
  }
  return result;
}

QVValue QVCollectorQuery::dictionary(std::string_view query) {
  QVValue dict = QVValue::object();
  std::set<std::string> repeated;
  for (auto& [key, text] : pairs(query)) {
    auto found = dict.find(key);
    if (found == dict.end()) {
      dict[key] = typed(text);
      continue;
    }
    // Repeats are kept, not overwritten: the page must show all that came.
    if (repeated.insert(key).second) *found = QVValue::array({std::move(*found)});
    found->push_back(typed(text));
  }
  return dict;
}

QVValue QVCollectorQuery::typed(const std::string& text) {
  // A NUL would end the JSON reader's text early, dropping what follows it.
  if (!text.empty() && (text.front() == '[' || text.front() == '{') &&
      text.find('\0') == std::string::npos && QVCollectorJsonScan::withinLimit(text)) {
    QVValue parsed = QVValue::parse(text, nullptr, false);
    if (!parsed.is_discarded()) return parsed;
  }
  // The library writes null as its JSON text, like the nested containers.
  if (text == "null") return QVValue(nullptr);
  if (isCanonicalInteger(text)) {
    try {
      if (text.front() == '-') return QVValue(std::stoll(text));
      return QVValue(std::stoull(text));
    } catch (const std::out_of_range&) {
      // Too long for 64 bits: keep the digits as text.
    }
  }
  return QVValue(text);
}

bool QVCollectorQuery::isCanonicalInteger(const std::string& text) {
  const size_t start = !text.empty() && text.front() == '-' ? 1 : 0;
  if (text.size() == start || text.size() - start > 20) return false;
  for (size_t i = start; i < text.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  // "007" and "-0" are text that happens to be digits, not numbers written out.
  if (text[start] == '0') return text.size() == 1;
  return true;
}

}  // namespace qv::collector
