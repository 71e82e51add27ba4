#include "QVShellArguments.h"

#include <algorithm>
#include <vector>

namespace qv::shell {

void expectArguments(const QVShellLine& line, size_t minCount, size_t maxCount,
                     const std::set<std::string>& allowed) {
  const size_t count = line.positional().size();
  if (count < minCount) throw QVShellError(line.command() + ": missing argument");
  if (count > maxCount) throw QVShellError(line.command() + ": too many arguments");
  for (const auto& o : line.options()) {
    if (!allowed.count(o.key)) throw QVShellError(line.command() + ": unknown option " + o.key);
  }
}

double parseSeconds(const std::string& text, const std::string& what) {
  const double seconds = parseNumber<double>(text, what);
  // Written so that NaN fails too; the bound keeps the nanosecond count of a
  // run loop's duration from overflowing.
  if (!(seconds >= 0 && seconds <= 1e9)) {
    throw QVShellError(what + ": seconds must be from 0 to 1e9: " + text);
  }
  return seconds;
}

QVValue parseJson(const std::string& text, const std::string& what) {
  QVValue value = QVValue::parse(text, nullptr, false);
  if (value.is_discarded()) throw QVShellError(what + ": not valid JSON: " + text);
  return value;
}

bool boolOption(const QVShellLine& line, const std::string& key) {
  const auto text = line.option(key);
  if (!text || *text == "false") return false;
  if (*text == "true") return true;
  throw QVShellError(line.command() + ": " + key + " must be true or false: " + *text);
}

std::string requiredOption(const QVShellLine& line, const std::string& key) {
  auto value = line.option(key);
  if (!value) throw QVShellError(line.command() + ": missing option " + key + "=");
  return *value;
}

std::string wordsInOrder(const QVShellLine& line) {
  std::vector<const QVShellArgument*> all;
  for (const auto& arg : line.positional()) all.push_back(&arg);
  for (const auto& arg : line.options()) all.push_back(&arg);
  std::sort(all.begin(), all.end(), [](auto* a, auto* b) { return a->offset < b->offset; });
  std::string text;
  for (const auto* arg : all) {
    if (!text.empty()) text += ' ';
    text += arg->key.empty() ? arg->value : arg->key + "=" + arg->value;
  }
  return text;
}

}  // namespace qv::shell
